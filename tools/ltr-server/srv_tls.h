// ltr-server's TLS: its own certificate, optionally client certificates required
// and checked against a CA, and the non-blocking reads and writes of a connection.
#pragma once
#include <sys/types.h>

#include <string>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace lsrv {

// A server context from PEM files (TLS 1.2 at least); with ca_file, a client must
// show a certificate that CA signed. Null with err set when a file does not load.
SSL_CTX *tls_context(const std::string &cert_file, const std::string &key_file,
                     const std::string &ca_file, std::string &err);

// One connection's TLS state. Reads and writes return as recv/send do: bytes moved,
// 0 from read at the end of the stream, -1 with errno (EAGAIN: not now; then
// wants_write says which readiness the connection waits for).
struct tls_conn {
    SSL *ssl = nullptr;
    bool wants_write = false;
    bool broken = false;  // a fatal error: no close_notify
    std::string error;    // why, after a fatal error
    ~tls_conn();
};
bool tls_start(tls_conn &t, SSL_CTX *ctx, int fd);
ssize_t tls_read(tls_conn &t, void *buf, size_t len);
ssize_t tls_write(tls_conn &t, const void *buf, size_t len);
// True once the handshake is done.
bool tls_ready(const tls_conn &t);
// The subject CN of the client's certificate; "" when it showed none.
std::string tls_peer_cn(const tls_conn &t);

} // namespace lsrv
