// The table ltrd-crypto.so exports: the units linked into it, reached by the daemon
// through rt_crypto_dl.cpp.
#include "nbr_mac.h"
#include "rt_config.h"
#include "rt_crypto.h"
#include "srvchan_transport.h"

namespace {
bool mac(std::string_view key, const uint8_t *data, size_t len, uint8_t *out)
{
    return nbr_mac(key, data, len, out);
}
} // namespace

extern "C" __attribute__((visibility("default"))) const rt_crypto_ops ltrd_crypto_ops = {
    RT_CRYPTO_ABI, sizeof(rt_config), nbr_mac_init, mac, srv_tls_check, &srv_tls_transport,
};
