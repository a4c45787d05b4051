// ltr-load: many access points at once on one server channel each, sending RSSI
// reports as fast as the server takes them, to measure what one server carries.
// Reads the server's counters from its --http /api/stats before and after.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "srv_wire.h"

using namespace lsrv;

namespace {

struct opts {
    std::string server = "127.0.0.1:7420", stats, site_out;
    unsigned aps = 100, stations = 20, readings = 3;
    double seconds = 10, spacing = 15;
    bool json = false;
};

struct load_ap {
    int fd = -1;
    bytes out;
    size_t off = 0;
    mac_addr mac{};
    uint64_t reports = 0;
};

mac_addr ap_mac(unsigned i) { return {0x02, 0x1d, 0, 0, uint8_t(i >> 8), uint8_t(i)}; }
mac_addr sta_mac(unsigned ap, unsigned j) { return {0x0a, 0x1d, uint8_t(ap >> 8), uint8_t(ap), 0, uint8_t(j)}; }
unsigned cols(unsigned n) { return unsigned(ceil(sqrt(double(n)))); }

void put16(bytes &b, uint16_t v)
{
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}

// One unsolicited report of every station of AP i, each heard by it and its neighbours.
bytes report(const opts &o, unsigned i, std::mt19937 &rng)
{
    unsigned c = cols(o.aps);
    std::uniform_int_distribution<int> rssi(-85, -40);
    size_t body = o.stations * (11 + 13 * size_t(o.readings));
    bytes m;
    m.reserve(16 + body);
    uint16_t len = uint16_t(6 + body);
    put16(m, 2);
    m.insert(m.end(), {0, 0, 0, 0, 0, 0, uint8_t(len >> 8), uint8_t(len)}); // msg_id 0, datalen
    put16(m, OP_RSSI_REPORT);
    put16(m, len);
    put16(m, uint16_t(o.stations * (1 + o.readings)));
    const unsigned near[] = {i, (i + 1) % o.aps, (i + c) % o.aps, (i + o.aps - 1) % o.aps};
    for (unsigned j = 0; j < o.stations; ++j) {
        mac_addr s = sta_mac(i, j);
        m.insert(m.end(), {0, TLV_MAC_LIST, 0, 11, 1});
        m.insert(m.end(), s.begin(), s.end());
        for (unsigned r = 0; r < o.readings; ++r) {
            mac_addr a = ap_mac(near[r % 4]);
            m.insert(m.end(), {0, TLV_RSSI_DATA, 0, 13});
            m.insert(m.end(), a.begin(), a.end());
            put16(m, 2412);
            m.push_back(uint8_t(int8_t(rssi(rng))));
        }
    }
    return m;
}

bool split(const std::string &addr, std::string &host, int &port)
{
    size_t c = addr.rfind(':');
    if (c == std::string::npos)
        return false;
    host = addr.substr(0, c);
    port = atoi(addr.c_str() + c + 1);
    return !host.empty() && port > 0 && port < 65536;
}

bool stats(const opts &o, nlohmann::json &out)
{
    std::string host;
    int port;
    if (!split(o.stats, host, port))
        return false;
    httplib::Client cli(host, port);
    auto r = cli.Get("/api/stats");
    if (!r || r->status != 200)
        return false;
    out = nlohmann::json::parse(r->body, nullptr, false);
    return !out.is_discarded();
}

int usage()
{
    fprintf(stderr,
            "usage: ltr-load [--server HOST:PORT] --stats HOST:PORT [--aps N] [--stations N]\n"
            "                [--readings N] [--seconds S] [--json]\n"
            "       ltr-load --site-out FILE [--aps N]\n"
            "  --server     the server's --listen address (default 127.0.0.1:7420)\n"
            "  --stats      the server's --http address, for its counters\n"
            "  --aps        access points, one connection each (default 100, at most 65535)\n"
            "  --stations   stations each access point owns and reports (default 20, at most 256)\n"
            "  --readings   access points that hear each station (default 3, at most 4)\n"
            "  --seconds    how long to measure (default 10)\n"
            "  --site-out   write the site file placing these access points, then exit\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    opts o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--json") {
            o.json = true;
            continue;
        }
        if (i + 1 >= argc)
            return usage();
        std::string v = argv[++i];
        if (a == "--server")
            o.server = v;
        else if (a == "--stats")
            o.stats = v;
        else if (a == "--site-out")
            o.site_out = v;
        else if (a == "--aps")
            o.aps = unsigned(atoi(v.c_str()));
        else if (a == "--stations")
            o.stations = unsigned(atoi(v.c_str()));
        else if (a == "--readings")
            o.readings = unsigned(atoi(v.c_str()));
        else if (a == "--seconds")
            o.seconds = atof(v.c_str());
        else
            return usage();
    }
    if (o.aps < 1 || o.aps > 65535 || o.stations < 1 || o.stations > 256 || o.readings < 1 ||
        o.readings > 4 || !(o.seconds > 0))
        return usage();
    if (!o.site_out.empty()) {
        std::ofstream f(o.site_out);
        f << "# " << o.aps << " access points of ltr-load on a grid, " << o.spacing << " m apart.\n";
        for (unsigned i = 0; i < o.aps; ++i)
            f << "[[ap]]\nname = \"load" << i << "\"\nmac = \"" << mac_str(ap_mac(i).data())
              << "\"\nposition = [" << o.spacing * (i % cols(o.aps)) << ", "
              << o.spacing * (i / cols(o.aps)) << "]\n";
        return f.good() ? 0 : 1;
    }
    std::string host;
    int port;
    nlohmann::json s0, s1;
    if (!split(o.server, host, port) || o.stats.empty())
        return usage();
    if (!stats(o, s0)) {
        fprintf(stderr, "ltr-load: no counters at http://%s/api/stats (is ltr-server running with --http?)\n",
                o.stats.c_str());
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);

    std::vector<load_ap> aps(o.aps);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    if (inet_pton(AF_INET, host.c_str(), &sa.sin_addr) != 1) {
        fprintf(stderr, "ltr-load: --server wants an IPv4 address and port\n");
        return 2;
    }
    for (unsigned i = 0; i < o.aps; ++i) {
        load_ap &a = aps[i];
        a.mac = ap_mac(i);
        a.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (a.fd < 0 || connect(a.fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
            fprintf(stderr, "ltr-load: connection %u: %s\n", i, strerror(errno));
            return 1;
        }
        fcntl(a.fd, F_SETFL, O_NONBLOCK);
        bytes h(a.mac.begin(), a.mac.end());
        uint32_t ip = htonl(0x0a000000u | i);
        h.insert(h.end(), reinterpret_cast<uint8_t *>(&ip), reinterpret_cast<uint8_t *>(&ip) + 4);
        std::string name = "load" + std::to_string(i);
        h.insert(h.end(), name.begin(), name.end());
        frame_put(a.out, FR_HELLO, h);
    }

    // Reports are prepared once per AP and resent: the server's work does not depend
    // on the values changing, and the generator stays out of the measurement.
    std::mt19937 rng(7);
    std::vector<bytes> frames(o.aps);
    for (unsigned i = 0; i < o.aps; ++i)
        frame_put(frames[i], FR_MESSAGE, report(o, i, rng));

    using clock = std::chrono::steady_clock;
    auto t0 = clock::now();
    auto measure_from = t0 + std::chrono::seconds(1);
    auto end = measure_from + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(o.seconds));
    bool measuring = false;
    std::vector<pollfd> pf(o.aps);
    char sink[4096];
    while (clock::now() < end) {
        if (!measuring && clock::now() >= measure_from) {
            if (!stats(o, s0))
                return 1;
            measuring = true;
        }
        for (unsigned i = 0; i < o.aps; ++i) {
            load_ap &a = aps[i];
            if (a.out.size() - a.off < 65536) {
                a.out.erase(a.out.begin(), a.out.begin() + std::ptrdiff_t(a.off));
                a.off = 0;
                a.out.insert(a.out.end(), frames[i].begin(), frames[i].end());
            }
            pf[i] = {a.fd, short(POLLOUT | POLLIN), 0};
        }
        if (poll(pf.data(), pf.size(), 100) < 0 && errno != EINTR)
            return 1;
        for (unsigned i = 0; i < o.aps; ++i) {
            load_ap &a = aps[i];
            if (pf[i].revents & POLLIN)
                (void)!recv(a.fd, sink, sizeof sink, 0);
            if (pf[i].revents & (POLLERR | POLLHUP)) {
                fprintf(stderr, "ltr-load: the server closed connection %u\n", i);
                return 1;
            }
            if (pf[i].revents & POLLOUT) {
                ssize_t n = send(a.fd, a.out.data() + a.off, a.out.size() - a.off, MSG_NOSIGNAL);
                if (n > 0)
                    a.off += size_t(n);
            }
        }
    }
    auto t1 = clock::now();
    if (!stats(o, s1))
        return 1;
    double dt = std::chrono::duration<double>(t1 - measure_from).count();
    auto rate = [&](const char *k) { return (s1[k].get<double>() - s0[k].get<double>()) / dt; };
    double rep = rate("reports"), upd = rate("station_updates"), sol = rate("solves");
    if (o.json) {
        printf("%s\n", nlohmann::json({{"aps", o.aps},
                                       {"stations", o.aps * o.stations},
                                       {"readings", o.readings},
                                       {"seconds", dt},
                                       {"reports_per_s", rep},
                                       {"station_updates_per_s", upd},
                                       {"solves_per_s", sol}})
                           .dump()
                           .c_str());
    } else {
        printf("%u access points, %u stations, %u readings each, %.1f s\n", o.aps, o.aps * o.stations,
               o.readings, dt);
        printf("reports ingested   %10.0f /s\n", rep);
        printf("station updates    %10.0f /s\n", upd);
        printf("positions solved   %10.0f /s\n", sol);
    }
    for (load_ap &a : aps)
        close(a.fd);
    return 0;
}
