// The two ends of the relay ingest benchmark (bench/relay_ingest.py):
//   relay_blast send FILE SRC_IP DST_IP PORT SECONDS
//     sends the datagrams of FILE (each: u16 big-endian length, bytes) round and round,
//     as fast as one sender can (sendmmsg, blocking), from SRC_IP for SECONDS;
//     prints "sent N in S s".
//   relay_blast sink BIND_IP PORT SECONDS
//     the bare receive loop: counts what arrives until SECONDS pass or nothing has
//     come for half a second after the first datagram; prints "received N in S s"
//     (S from the first datagram to the last) and the CPU time it used.
#include <arpa/inet.h>
#include <netinet/in.h>
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

int send_all(const char *file, const char *src, const char *dst, int port, double secs)
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
    uint64_t sent = 0;
    size_t next = 0;
    auto start = clk::now();
    while (seconds_since(start) < secs) {
        for (size_t i = 0; i < BATCH; i++, next = (next + 1) % iov.size()) {
            msgs[i] = {};
            msgs[i].msg_hdr.msg_name = &to;
            msgs[i].msg_hdr.msg_namelen = sizeof to;
            msgs[i].msg_hdr.msg_iov = &iov[next];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        int n = sendmmsg(fd, msgs.data(), BATCH, 0);
        if (n > 0)
            sent += uint64_t(n);
    }
    printf("sent %llu in %.3f s\n", (unsigned long long)sent, seconds_since(start));
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
    if (argc == 7 && !strcmp(argv[1], "send"))
        return send_all(argv[2], argv[3], argv[4], atoi(argv[5]), atof(argv[6]));
    if (argc == 5 && !strcmp(argv[1], "sink"))
        return sink(argv[2], atoi(argv[3]), atof(argv[4]));
    fprintf(stderr, "usage: %s send FILE SRC_IP DST_IP PORT SECONDS | sink BIND_IP PORT SECONDS\n",
            argv[0]);
    return 2;
}
