// The two ends of the relay ingest benchmark (bench/relay_ingest.py):
//   relay_blast send FILE SRC_IP DST_IP PORT SECONDS [KEY]
//     sends the datagrams of FILE (each: u16 big-endian length, bytes) round and round,
//     as fast as one sender can (sendmmsg, blocking), from SRC_IP for SECONDS;
//     prints "sent N in S s". With KEY, every datagram sent gets the next counter of
//     the envelope and its tag made again (a receiver drops a replayed counter).
//   relay_blast sink BIND_IP PORT SECONDS
//     the bare receive loop: counts what arrives until SECONDS pass or nothing has
//     come for half a second after the first datagram; prints "received N in S s"
//     (S from the first datagram to the last) and the CPU time it used.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using clk = std::chrono::steady_clock;

double seconds_since(clk::time_point t)
{
    return std::chrono::duration<double>(clk::now() - t).count();
}

int udp_socket(const char *ip, int port)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    if (fd < 0 || inet_pton(AF_INET, ip, &a.sin_addr) != 1 ||
        bind(fd, (sockaddr *)&a, sizeof a) != 0) {
        perror(ip);
        exit(1);
    }
    return fd;
}

constexpr size_t COUNTER_OFF = 20, HDR_LEN = 28, TAG_LEN = 16;

// HMAC-SHA256 keyed once: each tag restarts from the key's pads, so the sender keeps
// ahead of the receiver.
EVP_MAC_CTX *keyed(const char *key)
{
    EVP_MAC *mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    EVP_MAC_CTX *ctx = mac ? EVP_MAC_CTX_new(mac) : nullptr;
    EVP_MAC_free(mac);
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_end()};
    if (!ctx || EVP_MAC_init(ctx, (const unsigned char *)key, strlen(key), params) != 1) {
        fprintf(stderr, "HMAC-SHA256 unavailable\n");
        exit(1);
    }
    return ctx;
}

// The envelope's counter (big-endian) and the truncated HMAC-SHA256 after the payload.
void restamp(EVP_MAC_CTX *ctx, uint64_t counter, const iovec &d)
{
    auto *b = static_cast<uint8_t *>(d.iov_base);
    if (d.iov_len < HDR_LEN + TAG_LEN)
        return;
    for (int i = 0; i < 8; i++)
        b[COUNTER_OFF + i] = uint8_t(counter >> (56 - 8 * i));
    uint8_t md[EVP_MAX_MD_SIZE];
    size_t n = 0;
    EVP_MAC_init(ctx, nullptr, 0, nullptr);
    EVP_MAC_update(ctx, b, d.iov_len - TAG_LEN);
    EVP_MAC_final(ctx, md, &n, sizeof md);
    memcpy(b + d.iov_len - TAG_LEN, md, TAG_LEN);
}

int send_all(const char *file, const char *src, const char *dst, int port, double secs,
             const char *key)
{
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> raw((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    std::vector<iovec> iov;
    for (size_t off = 0; off + 2 <= raw.size();) {
        size_t n = size_t(raw[off]) << 8 | raw[off + 1];
        if (off + 2 + n > raw.size())
            break;
        iov.push_back({raw.data() + off + 2, n});
        off += 2 + n;
    }
    if (iov.empty()) {
        fprintf(stderr, "%s: no datagrams\n", file);
        return 1;
    }
    int fd = udp_socket(src, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port));
    inet_pton(AF_INET, dst, &to.sin_addr);
    constexpr size_t BATCH = 64;
    std::vector<mmsghdr> msgs(BATCH);
    uint64_t sent = 0, counter = 0;
    EVP_MAC_CTX *mac = key ? keyed(key) : nullptr;
    size_t next = 0;
    auto start = clk::now();
    while (seconds_since(start) < secs) {
        for (size_t i = 0; i < BATCH; i++, next = (next + 1) % iov.size()) {
            msgs[i] = {};
            msgs[i].msg_hdr.msg_name = &to;
            msgs[i].msg_hdr.msg_namelen = sizeof to;
            msgs[i].msg_hdr.msg_iov = &iov[next];
            msgs[i].msg_hdr.msg_iovlen = 1;
            if (key)
                restamp(mac, ++counter, iov[next]);
        }
        int n = sendmmsg(fd, msgs.data(), BATCH, 0);
        if (n > 0)
            sent += uint64_t(n);
    }
    printf("sent %llu in %.3f s\n", (unsigned long long)sent, seconds_since(start));
    EVP_MAC_CTX_free(mac);
    close(fd);
    return 0;
}

int sink(const char *ip, int port, double secs)
{
    int fd = udp_socket(ip, port);
    int want = 4 << 20; // the daemon's receive buffer, for a like-for-like comparison
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &want, sizeof want) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
    printf("ready\n");
    fflush(stdout);
    uint8_t buf[65536];
    uint64_t got = 0;
    auto start = clk::now(), first = start, last = start;
    while (seconds_since(start) < secs) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, got ? 500 : 1000) <= 0) {
            if (got)
                break;
            continue;
        }
        while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) >= 0) {
            if (!got++)
                first = clk::now();
        }
        last = clk::now();
    }
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    double cpu = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                 double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    printf("received %llu in %.3f s, cpu %.3f s\n", (unsigned long long)got,
           std::chrono::duration<double>(last - first).count(), cpu);
    close(fd);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if ((argc == 7 || argc == 8) && !strcmp(argv[1], "send"))
        return send_all(argv[2], argv[3], argv[4], atoi(argv[5]), atof(argv[6]),
                        argc == 8 ? argv[7] : nullptr);
    if (argc == 5 && !strcmp(argv[1], "sink"))
        return sink(argv[2], atoi(argv[3]), atof(argv[4]));
    fprintf(stderr,
            "usage: %s send FILE SRC_IP DST_IP PORT SECONDS [KEY] | sink BIND_IP PORT SECONDS\n",
            argv[0]);
    return 2;
}
