// TLS under the server channel: the TCP connect, then a non-blocking handshake that
// checks the server's certificate against the configured CA and name (TLS 1.2 at
// least), optionally with this access point's own certificate; the frames travel
// inside unchanged. Certificate files are read again on every connection, so a
// renewed certificate takes effect at the next reconnect.
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <memory>

#include "rt_config.h"
#include "rt_counter.h"
#include "rt_log.h"
#include "srvchan.h"
#include "srvchan_transport.h"

struct srv_conn {
    int fd = -1;
    SSL *ssl = nullptr;
    std::string addr;
    bool read_wants_write = false; // the last read stopped for the socket's output
    bool write_wants_read = false; // the last write stopped for the socket's input
    bool broken = false;           // a fatal error: no close_notify
    int broken_errno = 0;
};

namespace {

constexpr size_t max_pem_bytes = 256 << 10;

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// ---- The socket under SSL: send with MSG_NOSIGNAL, so that a server that resets
// the connection cannot raise SIGPIPE in the daemon ----

int sock_fd(BIO *b) { return int(reinterpret_cast<intptr_t>(BIO_get_data(b))); }

int sock_write(BIO *b, const char *buf, int len)
{
    BIO_clear_retry_flags(b);
    ssize_t n = ::send(sock_fd(b), buf, size_t(len), MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        BIO_set_retry_write(b);
    return int(n);
}

int sock_read(BIO *b, char *buf, int len)
{
    BIO_clear_retry_flags(b);
    ssize_t n = ::recv(sock_fd(b), buf, size_t(len), 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        BIO_set_retry_read(b);
    return int(n);
}

long sock_ctrl(BIO *, int cmd, long, void *) { return cmd == BIO_CTRL_FLUSH ? 1 : 0; }

int sock_create(BIO *b)
{
    BIO_set_init(b, 1);
    return 1;
}

BIO *sock_bio(int fd)
{
    static BIO_METHOD *m = [] {
        BIO_METHOD *bm = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "srvchan");
        BIO_meth_set_write(bm, sock_write);
        BIO_meth_set_read(bm, sock_read);
        BIO_meth_set_ctrl(bm, sock_ctrl);
        BIO_meth_set_create(bm, sock_create);
        return bm;
    }();
    BIO *b = BIO_new(m);
    if (b)
        BIO_set_data(b, reinterpret_cast<void *>(intptr_t(fd)));
    return b;
}

// The newest OpenSSL error as text (and the queue emptied).
std::string ssl_reason()
{
    unsigned long e = ERR_peek_last_error();
    const char *r = e ? ERR_reason_error_string(e) : nullptr;
    ERR_clear_error();
    return r ? r : "unknown error";
}

// ---- The client context, from the configured files ----

using ctx_ptr = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)>;
using bio_ptr = std::unique_ptr<BIO, decltype(&BIO_free_all)>;

// A PEM file as a memory BIO; read like every file the runtime takes from the
// configuration (regular files only, bounded).
bio_ptr pem_bio(const std::string &path, std::string &text, std::string &why)
{
    if (!rt_read_regular(path, max_pem_bytes, false, text, why)) {
        why = path + ": " + why;
        return bio_ptr(nullptr, BIO_free_all);
    }
    return bio_ptr(BIO_new_mem_buf(text.data(), int(text.size())), BIO_free_all);
}

bool load_ca(SSL_CTX *ctx, const std::string &path, std::string &why)
{
    std::string text;
    bio_ptr b = pem_bio(path, text, why);
    if (!b)
        return false;
    X509_STORE *store = SSL_CTX_get_cert_store(ctx);
    int n = 0;
    while (X509 *x = PEM_read_bio_X509(b.get(), nullptr, nullptr, nullptr)) {
        n += X509_STORE_add_cert(store, x) == 1;
        X509_free(x);
    }
    ERR_clear_error(); // the end of the file reads as an error
    if (n == 0)
        why = path + ": no PEM certificate in it";
    return n > 0;
}

bool load_cert(SSL_CTX *ctx, const std::string &path, std::string &why)
{
    std::string text;
    bio_ptr b = pem_bio(path, text, why);
    if (!b)
        return false;
    X509 *leaf = PEM_read_bio_X509(b.get(), nullptr, nullptr, nullptr);
    if (!leaf || SSL_CTX_use_certificate(ctx, leaf) != 1) {
        X509_free(leaf);
        why = path + ": no usable PEM certificate in it (" + ssl_reason() + ")";
        return false;
    }
    X509_free(leaf);
    // Intermediate CAs after the leaf go out with it.
    while (X509 *x = PEM_read_bio_X509(b.get(), nullptr, nullptr, nullptr))
        if (SSL_CTX_add0_chain_cert(ctx, x) != 1)
            X509_free(x);
    ERR_clear_error();
    return true;
}

bool load_key(SSL_CTX *ctx, const std::string &path, std::string &why)
{
    std::string text;
    bio_ptr b = pem_bio(path, text, why);
    if (!b)
        return false;
    // No pass phrase prompt: a daemon has nobody to ask.
    pem_password_cb *no_prompt = [](char *, int, int, void *) { return -1; };
    EVP_PKEY *k = PEM_read_bio_PrivateKey(b.get(), nullptr, no_prompt, nullptr);
    OPENSSL_cleanse(text.data(), text.size());
    if (!k) {
        why = path + ": no unencrypted PEM private key in it (" + ssl_reason() + ")";
        return false;
    }
    bool ok = SSL_CTX_use_PrivateKey(ctx, k) == 1 && SSL_CTX_check_private_key(ctx) == 1;
    EVP_PKEY_free(k);
    if (!ok) {
        ERR_clear_error();
        why = path + ": the key does not belong to server.cert_file";
    }
    return ok;
}

ctx_ptr make_ctx(const rt_config &c, std::string &key, std::string &why)
{
    ctx_ptr ctx(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    if (!ctx) {
        key = "server.tls", why = ssl_reason();
        return ctx;
    }
    SSL_CTX *x = ctx.get();
    SSL_CTX_set_min_proto_version(x, TLS1_2_VERSION);
    // An end of stream without close_notify reads as an end of stream: the framing
    // itself tells a cut frame.
    SSL_CTX_set_options(x, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    // The channel's output buffer may move between a write that must be retried
    // and its retry, and one record at a time is as good as all at once.
    SSL_CTX_set_mode(x, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_verify(x, SSL_VERIFY_PEER, nullptr);
    if (!load_ca(x, c.server_ca_file, why)) {
        key = "server.ca_file";
        return ctx_ptr(nullptr, SSL_CTX_free);
    }
    if (!c.server_cert_file.empty()) {
        if (!load_cert(x, c.server_cert_file, why)) {
            key = "server.cert_file";
            return ctx_ptr(nullptr, SSL_CTX_free);
        }
        if (!load_key(x, c.server_key_file, why)) {
            key = "server.key_file";
            return ctx_ptr(nullptr, SSL_CTX_free);
        }
    }
    return ctx;
}

// The name the server's certificate must carry: server_name, else the host of
// the address.
std::string expected_name(const rt_config &c, const std::string &addr)
{
    std::string host, port;
    if (!c.server_name.empty())
        return c.server_name;
    srv_split_address(addr, host, port);
    return host;
}

bool is_ip_literal(const std::string &s)
{
    uint8_t b[16];
    return inet_pton(AF_INET, s.c_str(), b) == 1 || inet_pton(AF_INET6, s.c_str(), b) == 1;
}

// ---- The handshake ----

// Why a failed handshake failed: one log line, the reason named from the
// certificate check when that is what refused the server.
void handshake_failed(srv_conn *c, int ssl_err, const std::string &name)
{
    int sys_err = errno;
    rt_counter("srvchan.tls_failures")++;
    long v = SSL_get_verify_result(c->ssl);
    if (v != X509_V_OK) {
        ERR_clear_error();
        if (v == X509_V_ERR_CERT_HAS_EXPIRED)
            rt_log_ratelimited("srvchan.tls.expired", 300, 4,
                               "server channel: certificate of %s refused: it has expired\n",
                               c->addr.c_str());
        else if (v == X509_V_ERR_HOSTNAME_MISMATCH || v == X509_V_ERR_IP_ADDRESS_MISMATCH)
            rt_log_ratelimited(v == X509_V_ERR_HOSTNAME_MISMATCH ? "srvchan.tls.name"
                                                                 : "srvchan.tls.ip",
                               300, 4,
                               "server channel: certificate of %s refused: it is not for "
                               "\"%s\"\n",
                               c->addr.c_str(), name.c_str());
        else
            rt_log_ratelimited("srvchan.tls.cert", 300, 4,
                               "server channel: certificate of %s refused: %s (verify error "
                               "%ld)\n",
                               c->addr.c_str(), X509_verify_cert_error_string(v), v);
        return;
    }
    std::string why = ssl_err == SSL_ERROR_SYSCALL
                          ? (sys_err ? strerror(sys_err) : "connection closed by the server")
                          : ssl_reason();
    rt_log_ratelimited("srvchan.tls.handshake", 300, 4,
                       "server channel: TLS handshake with %s failed: %s\n", c->addr.c_str(),
                       why.c_str());
}

// One step of the handshake: 1 done, 0 waits for events (set), -1 failed (logged).
int handshake_step(srv_conn *c, short &events, const std::string &name)
{
    ERR_clear_error();
    errno = 0;
    int r = SSL_do_handshake(c->ssl);
    if (r == 1)
        return 1;
    int e = SSL_get_error(c->ssl, r);
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) {
        events = e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        return 0;
    }
    c->broken = true;
    handshake_failed(c, e, name);
    return -1;
}

void tls_close(srv_conn *c)
{
    if (c->ssl && !c->broken) {
        ERR_clear_error();
        SSL_shutdown(c->ssl); // close_notify if the socket takes it now; no waiting
    }
    SSL_free(c->ssl);
    ERR_clear_error();
    if (c->fd >= 0)
        ::close(c->fd);
    delete c;
}

srv_conn *tls_connect(const std::string &addr, const srv_connect_ctl &ctl)
{
    const rt_config &cfg = rt_cfg();
    std::string key, why;
    ctx_ptr ctx = make_ctx(cfg, key, why);
    if (!ctx) {
        rt_log_ratelimited("srvchan.tls.files", 300, 3, "server channel: %s: %s\n", key.c_str(),
                           why.c_str());
        return nullptr;
    }
    int fd = srv_tcp_open(addr, ctl);
    if (fd < 0)
        return nullptr;
    srv_conn *c = new srv_conn;
    c->fd = fd;
    c->addr = addr;
    c->ssl = SSL_new(ctx.get()); // holds its own reference to the context
    BIO *b = c->ssl ? sock_bio(fd) : nullptr;
    if (!b) {
        rt_log(3, "server channel: TLS: %s\n", ssl_reason().c_str());
        c->broken = true;
        tls_close(c);
        return nullptr;
    }
    SSL_set_bio(c->ssl, b, b);
    SSL_set_connect_state(c->ssl);
    const std::string name = expected_name(cfg, addr);
    X509_VERIFY_PARAM *vp = SSL_get0_param(c->ssl);
    X509_VERIFY_PARAM_set_hostflags(vp, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (is_ip_literal(name)) {
        X509_VERIFY_PARAM_set1_ip_asc(vp, name.c_str());
    } else {
        SSL_set1_host(c->ssl, name.c_str());
        SSL_set_tlsext_host_name(c->ssl, name.c_str()); // SNI: IP literals carry none
    }

    int64_t end = now_ms() + ctl.timeout_ms;
    for (;;) {
        short events = 0;
        int r = handshake_step(c, events, name);
        if (r > 0)
            break;
        int64_t left = end - now_ms();
        if (r == 0 && !ctl.stop() && left <= 0)
            rt_log_ratelimited("srvchan.tls.timeout", 300, 4,
                               "server channel: TLS handshake with %s timed out\n", addr.c_str());
        if (r < 0 || ctl.stop() || left <= 0 || ctl.wait(fd, events, int(left)) < 0) {
            c->broken = true;
            tls_close(c);
            return nullptr;
        }
    }
    rt_log(6, "server channel: %s with %s, certificate for \"%s\" verified\n",
           SSL_get_version(c->ssl), addr.c_str(), name.c_str());
    return c;
}

// A failed read or write: errno says why (EAGAIN: not now).
ssize_t io_failed(srv_conn *c, int e, bool reading)
{
    switch (e) {
    case SSL_ERROR_WANT_READ:
        c->write_wants_read = !reading;
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_WANT_WRITE:
        c->read_wants_write = reading;
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_ZERO_RETURN:
        if (reading)
            return 0;
        c->broken_errno = EPIPE;
        break;
    case SSL_ERROR_SYSCALL:
        c->broken_errno = errno ? errno : ECONNRESET;
        break;
    default: // the server's alert or a record that does not decrypt
        rt_log(4, "server channel: TLS error on the connection to %s: %s\n", c->addr.c_str(),
               ssl_reason().c_str());
        c->broken_errno = EPROTO;
    }
    c->broken = true;
    errno = c->broken_errno;
    return -1;
}

ssize_t tls_read(srv_conn *c, void *buf, size_t len)
{
    if (c->broken) {
        errno = c->broken_errno;
        return -1;
    }
    c->read_wants_write = false;
    ERR_clear_error();
    errno = 0;
    size_t n = 0;
    if (SSL_read_ex(c->ssl, buf, len, &n) == 1)
        return ssize_t(n);
    return io_failed(c, SSL_get_error(c->ssl, 0), true);
}

// Writes records while the socket takes them.
ssize_t tls_write(srv_conn *c, const void *buf, size_t len)
{
    if (c->broken) {
        errno = c->broken_errno;
        return -1;
    }
    c->write_wants_read = false;
    size_t done = 0;
    while (done < len) {
        ERR_clear_error();
        errno = 0;
        size_t n = 0;
        if (SSL_write_ex(c->ssl, static_cast<const char *>(buf) + done, len - done, &n) != 1) {
            int e = SSL_get_error(c->ssl, 0);
            ssize_t r = io_failed(c, e, false);
            // What went out counts; a retry starts where it stopped, as SSL requires.
            return done && (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) ? ssize_t(done)
                                                                                 : r;
        }
        done += n;
    }
    return ssize_t(done);
}

int tls_poll_fd(const srv_conn *c) { return c->fd; }

short tls_poll_events(const srv_conn *c, bool want_read, bool want_write)
{
    short ev = 0;
    if (want_read)
        ev |= c->read_wants_write ? POLLOUT : POLLIN;
    if (want_write)
        ev |= c->write_wants_read ? POLLIN : POLLOUT;
    return ev;
}

bool tls_buffered(const srv_conn *c) { return !c->broken && SSL_pending(c->ssl) > 0; }

} // namespace

bool srv_tls_check(const rt_config &c, std::string &key, std::string &why)
{
    return make_ctx(c, key, why) != nullptr;
}

const srv_transport srv_tls_transport = {
    "tls", tls_connect, tls_read, tls_write, tls_close, tls_poll_fd, tls_poll_events, tls_buffered,
};
