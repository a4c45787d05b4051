// The runtime's cryptography (neighbour HMAC, TLS under the server channel) lives in
// a plugin, ltrd-crypto.so, so that a daemon without a site key or TLS never maps
// the crypto library: its relocated pages cost private memory whether used or not.
// Tests and tools link the same units directly (rt_crypto_direct.cpp).
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

struct rt_config;
struct srv_transport;

// What the plugin exports as `ltrd_crypto_ops`. A plugin of another build (another
// layout of what the two sides share) is refused.
struct rt_crypto_ops {
    uint32_t abi;          // RT_CRYPTO_ABI
    uint32_t config_size;  // sizeof(rt_config) in the plugin's build
    // nbr_mac_init / nbr_mac (nbr_mac.h)
    void (*mac_init)(std::string_view key);
    bool (*mac)(std::string_view key, const uint8_t *data, size_t len, uint8_t *out);
    // srv_tls_check (srvchan_transport.h)
    bool (*tls_check)(const rt_config &c, std::string &key, std::string &why);
    const srv_transport *tls; // srv_tls_transport
};
constexpr uint32_t RT_CRYPTO_ABI = 1;
constexpr const char *RT_CRYPTO_PLUGIN = "ltrd-crypto.so";

// Makes the cryptography usable: loads the plugin (once) where the daemon uses one.
// False with why (the paths tried and the loader's error) when it cannot.
bool rt_crypto_ready(std::string &why);
