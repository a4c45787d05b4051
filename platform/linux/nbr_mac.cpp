// Keyed HMAC contexts for neighbour datagrams. Keying hashes the key's two pads; a
// context that keeps them starts each datagram again from there (an init without a
// key), which is what makes a tag cheap. One per thread: senders and the receive
// loop never share one.
#include "nbr_mac.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <syslog.h>

#include <string>

#include "rt_counter.h"
#include "rt_log.h"

namespace {

struct keyed_ctx {
    EVP_MAC *mac = nullptr;
    EVP_MAC_CTX *ctx = nullptr;
    std::string key; // the key ctx holds
    ~keyed_ctx()
    {
        EVP_MAC_CTX_free(ctx);
        EVP_MAC_free(mac);
    }
};

// The context keyed with key, keying it first when the key changed; null on failure.
EVP_MAC_CTX *keyed(std::string_view key)
{
    thread_local keyed_ctx k;
    if (k.ctx && k.key == key)
        return EVP_MAC_init(k.ctx, nullptr, 0, nullptr) == 1 ? k.ctx : nullptr;
    if (!k.mac && !(k.mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr)))
        return nullptr;
    if (!k.ctx && !(k.ctx = EVP_MAC_CTX_new(k.mac)))
        return nullptr;
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_end()};
    k.key.clear();
    if (EVP_MAC_init(k.ctx, reinterpret_cast<const unsigned char *>(key.data()), key.size(),
                     params) != 1)
        return nullptr;
    k.key.assign(key);
    rt_counter("nbr.mac_keyed")++;
    return k.ctx;
}

} // namespace

bool nbr_mac(std::string_view key, const uint8_t *data, size_t len, uint8_t out[NBR_MAC_LEN])
{
    EVP_MAC_CTX *ctx = keyed(key);
    size_t n = 0;
    if (!ctx || EVP_MAC_update(ctx, data, len) != 1 ||
        EVP_MAC_final(ctx, out, &n, NBR_MAC_LEN) != 1 || n != NBR_MAC_LEN) {
        rt_log_ratelimited("nbr.mac", 10, LOG_ERR, "neighbour messaging: HMAC-SHA256 failed");
        return false;
    }
    return true;
}
