// ltr-server's TLS over the accepted sockets.
#include "srv_tls.h"

#include <errno.h>
#include <string.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace lsrv {

namespace {

std::string last_reason()
{
    unsigned long e = ERR_peek_last_error();
    const char *r = e ? ERR_reason_error_string(e) : nullptr;
    ERR_clear_error();
    return r ? r : "unknown error";
}

// errno and the connection's state after a failed SSL call.
ssize_t failed(tls_conn &t, int r, bool reading)
{
    int e = SSL_get_error(t.ssl, r);
    t.wants_write = e == SSL_ERROR_WANT_WRITE;
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
        errno = EAGAIN;
        return -1;
    }
    if (e == SSL_ERROR_ZERO_RETURN && reading)
        return 0;
    t.broken = true;
    long v = SSL_get_verify_result(t.ssl);
    if (e == SSL_ERROR_SYSCALL)
        t.error = errno ? strerror(errno) : "connection closed";
    else if (v != X509_V_OK)
        t.error = std::string("client certificate refused: ") + X509_verify_cert_error_string(v);
    else
        t.error = last_reason();
    if (!SSL_is_init_finished(t.ssl))
        t.error = "TLS handshake failed: " + t.error;
    ERR_clear_error();
    errno = EPROTO;
    return -1;
}

// One read or write (op) with read(2)/write(2) results: bytes moved, 0 at the peer's
// close_notify when reading, else -1 with errno EAGAIN (try again) or EPROTO (broken).
template <class Op> ssize_t transfer(tls_conn &t, bool reading, Op op)
{
    if (t.broken) {
        errno = EPROTO;
        return -1;
    }
    ERR_clear_error();
    errno = 0;
    size_t n = 0;
    if (op(&n) == 1) {
        t.wants_write = false;
        return ssize_t(n);
    }
    return failed(t, 0, reading);
}

} // namespace

SSL_CTX *tls_context(const std::string &cert_file, const std::string &key_file,
                     const std::string &ca_file, std::string &err)
{
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx) {
        err = last_reason();
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (SSL_CTX_use_certificate_chain_file(ctx, cert_file.c_str()) != 1)
        err = "--tls-cert " + cert_file + ": " + last_reason();
    else if (SSL_CTX_use_PrivateKey_file(ctx, key_file.c_str(), SSL_FILETYPE_PEM) != 1)
        err = "--tls-key " + key_file + ": " + last_reason();
    else if (!ca_file.empty() && SSL_CTX_load_verify_locations(ctx, ca_file.c_str(), nullptr) != 1)
        err = "--tls-ca " + ca_file + ": " + last_reason();
    if (!err.empty()) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    if (!ca_file.empty())
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return ctx;
}

tls_conn::~tls_conn()
{
    if (ssl && !broken && SSL_is_init_finished(ssl))
        SSL_shutdown(ssl); // close_notify if the socket takes it now
    SSL_free(ssl);
    ERR_clear_error();
}

bool tls_start(tls_conn &t, SSL_CTX *ctx, int fd)
{
    t.ssl = SSL_new(ctx);
    if (!t.ssl || SSL_set_fd(t.ssl, fd) != 1) {
        t.broken = true;
        t.error = last_reason();
        return false;
    }
    SSL_set_accept_state(t.ssl);
    return true;
}

ssize_t tls_read(tls_conn &t, void *buf, size_t len)
{
    return transfer(t, true, [&](size_t *n) { return SSL_read_ex(t.ssl, buf, len, n); });
}

ssize_t tls_write(tls_conn &t, const void *buf, size_t len)
{
    return transfer(t, false, [&](size_t *n) { return SSL_write_ex(t.ssl, buf, len, n); });
}

bool tls_ready(const tls_conn &t) { return t.ssl && SSL_is_init_finished(t.ssl); }

std::string tls_peer_cn(const tls_conn &t)
{
    X509 *c = t.ssl ? SSL_get0_peer_certificate(t.ssl) : nullptr;
    char cn[256] = "";
    if (!c || X509_NAME_get_text_by_NID(X509_get_subject_name(c), NID_commonName, cn, sizeof cn) < 0)
        return "";
    return cn;
}

} // namespace lsrv
