// Keyed HMAC contexts for neighbour datagrams. Keying hashes the key's two pads; a
// context that keeps them starts each datagram again from there (an init without a
// key), which is what makes a tag cheap. Each thread has its own context, copied from
// one keyed by the thread that opened the endpoint, so that the library's look-ups
// (and the per-thread state they leave) stay on that thread.
#include "nbr_mac.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <syslog.h>

#include <mutex>
#include <string>

#include "rt_counter.h"
#include "rt_log.h"

namespace {

struct keyed_ctx {
    EVP_MAC_CTX *ctx = nullptr;
    std::string key; // the key ctx holds
    ~keyed_ctx() { EVP_MAC_CTX_free(ctx); }
};

// A new context keyed with key; null on failure.
EVP_MAC_CTX *new_keyed(std::string_view key)
{
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    EVP_MAC_CTX *ctx = mac ? EVP_MAC_CTX_new(mac) : nullptr;
    EVP_MAC_free(mac); // the context holds its own reference
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_end()};
    if (ctx && EVP_MAC_init(ctx, reinterpret_cast<const unsigned char *>(key.data()), key.size(),
                            params) != 1) {
        EVP_MAC_CTX_free(ctx);
        ctx = nullptr;
    }
    if (ctx)
        rt_counter("nbr.mac_keyed")++;
    return ctx;
}

// Keyed by nbr_mac_init; never freed (threads may copy it until the process ends).
std::mutex g_mu;
keyed_ctx *g_template;

// This thread's context keyed with key, set up when the key changed; null on failure.
EVP_MAC_CTX *keyed(std::string_view key)
{
    thread_local keyed_ctx k;
    if (k.ctx && k.key == key)
        return EVP_MAC_init(k.ctx, nullptr, 0, nullptr) == 1 ? k.ctx : nullptr;
    EVP_MAC_CTX_free(k.ctx);
    k.ctx = nullptr;
    k.key.clear();
    {
        std::lock_guard g(g_mu);
        if (g_template && g_template->key == key)
            k.ctx = EVP_MAC_CTX_dup(g_template->ctx);
    }
    if (!k.ctx && !(k.ctx = new_keyed(key)))
        return nullptr;
    k.key.assign(key);
    return k.ctx;
}

} // namespace

void nbr_mac_init(std::string_view key)
{
    std::lock_guard g(g_mu);
    if (g_template && g_template->key == key)
        return;
    EVP_MAC_CTX *ctx = new_keyed(key);
    if (!ctx)
        return; // each thread then keys its own
    if (!g_template)
        g_template = new keyed_ctx;
    EVP_MAC_CTX_free(g_template->ctx);
    g_template->ctx = ctx;
    g_template->key.assign(key);
}

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
