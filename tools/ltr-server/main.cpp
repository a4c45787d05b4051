// ltr-server: a reference location server. Accepts access points (over TCP, or TLS
// with their certificates checked), answers their keep-alive, sends tracking
// requests on command and prints what comes back.
#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "srv_cmd.h"
#include "srv_http.h"
#include "srv_json.h"
#include "srv_mqtt.h"
#include "srv_print.h"
#include "srv_site.h"
#include "srv_store.h"
#include "srv_tls.h"
#include "srv_wire.h"

#include <openssl/ssl.h>

using namespace lsrv;

namespace {

volatile sig_atomic_t g_signalled = 0;
void on_signal(int) { g_signalled = 1; }

double now_s()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double unix_now()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct fd_owner {
    int fd = -1;
    explicit fd_owner(int f = -1) : fd(f) {}
    fd_owner(const fd_owner &) = delete;
    fd_owner &operator=(const fd_owner &) = delete;
    ~fd_owner()
    {
        if (fd >= 0)
            close(fd);
    }
};

struct ap_conn {
    ap_ident id;
    fd_owner sock;
    tls_conn tls; // unused over plain TCP; goes before the socket closes
    bool tls_seen = false; // handshake done and the certificate looked at
    bytes in, out;
    size_t out_off = 0;
    std::set<uint32_t> pending; // msg_ids sent and not yet answered
    bool closing = false;
    explicit ap_conn(int fd) : sock(fd) {}
};

struct server {
    bool json = false;
    SSL_CTX *tls_ctx = nullptr; // null: plain TCP
    bool quiet = false;            // no line per message
    site where;
    store st;
    std::unique_ptr<http_server, void (*)(http_server *)> http{nullptr, nullptr};
    mqtt_ptr mqtt{nullptr, nullptr};
    double last_tick = 0, last_stats = 0;
    fd_owner listen_sock;
    std::vector<std::unique_ptr<ap_conn>> aps;
    unsigned next_ap = 1;
    uint32_t next_msg_id = 1;
    int failures = 0;

    void out(const std::string &s)
    {
        fputs(s.c_str(), stdout);
        fflush(stdout);
    }
    void fail(const std::string &s)
    {
        ++failures;
        fprintf(stderr, "ltr-server: %s\n", s.c_str());
    }
    void drop(ap_conn &a, const std::string &why)
    {
        if (a.closing)
            return;
        a.closing = true;
        out(show_conn(a.id, "disconnect", why, json));
        if (!a.pending.empty())
            fail("ap#" + std::to_string(a.id.id) + ": " + std::to_string(a.pending.size()) +
                 " request(s) unanswered at disconnect");
    }
    unsigned hello_count() const
    {
        unsigned n = 0;
        for (const auto &a : aps)
            n += a->id.hello && !a->closing;
        return n;
    }
    size_t pending_count() const
    {
        size_t n = 0;
        for (const auto &a : aps)
            if (!a->closing)
                n += a->pending.size();
        return n;
    }

    // Changed stations go to the page and the broker at most every flush_s: a busy
    // station costs one JSON text per flush, not one per report.
    static constexpr double flush_s = 0.2;
    std::set<mac_addr> dirty;
    double last_flush = 0;

    void publish(const std::vector<st_event> &ev)
    {
        if (!http && !mqtt)
            return;
        for (const st_event &e : ev) {
            std::string mac = mac_str(e.mac.data());
            if (e.kind == ST_FORGET) {
                dirty.erase(e.mac);
                if (http)
                    http_drop_station(*http, mac);
                continue;
            }
            if (e.kind == ST_MOVE) {
                dirty.insert(e.mac);
                continue;
            }
            // Whoever acts on the event finds the state already saying so.
            send_state(e.mac, now_s(), unix_now());
            dirty.erase(e.mac);
            if (mqtt)
                mqtt_event(*mqtt, e.kind == ST_ENTER ? "enter" : "leave", mac, unix_now());
        }
    }

    void send_state(const mac_addr &m, double now, double unix_t)
    {
        auto it = st.stations.find(m);
        if (it == st.stations.end())
            return;
        std::string mac = mac_str(m.data());
        std::string j = station_json(st, it->second, now, unix_t).dump();
        if (http)
            http_set_station(*http, mac, j);
        if (mqtt)
            mqtt_station(*mqtt, mac, j, it->second.present);
    }

    void flush(double now)
    {
        last_flush = now;
        double unix_t = unix_now();
        for (const mac_addr &m : dirty)
            send_state(m, now, unix_t);
        dirty.clear();
    }

    void publish_stats(double now)
    {
        last_stats = now;
        size_t present = 0;
        for (const auto &[m, s] : st.stations)
            present += s.present;
        nlohmann::json j = {{"reports", st.counts.reports},
                            {"station_updates", st.counts.station_updates},
                            {"solves", st.counts.solves},
                            {"stations", st.stations.size()},
                            {"present", present},
                            {"aps_connected", hello_count()}};
        http_set_stats(*http, j.dump());
    }

    // Twice a second: expiry, the access point list, a reconnected broker; and the
    // flush of changed stations.
    void tick()
    {
        double now = now_s();
        if (!dirty.empty() && now - last_flush >= flush_s)
            flush(now);
        if (now - last_tick < 0.5)
            return;
        last_tick = now;
        std::vector<st_event> ev;
        store_expire(st, now, ev);
        publish(ev);
        if (http) {
            std::vector<ap_ident> conn;
            for (const auto &a : aps)
                if (a->id.hello && !a->closing)
                    conn.push_back(a->id);
            http_set_aps(*http, aps_json(st, conn).dump());
            publish_stats(now);
        }
        if (mqtt && mqtt_take_connected(*mqtt)) {
            double unix_t = unix_now();
            for (const auto &[m, s] : st.stations)
                mqtt_station(*mqtt, mac_str(m.data()), station_json(st, s, now, unix_t).dump(), s.present);
        }
    }

    void accept_one()
    {
        sockaddr_storage ss{};
        socklen_t sl = sizeof ss;
        int fd = accept4(listen_sock.fd, reinterpret_cast<sockaddr *>(&ss), &sl,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        auto a = std::make_unique<ap_conn>(fd);
        a->id.id = next_ap++;
        char host[NI_MAXHOST], serv[NI_MAXSERV];
        if (getnameinfo(reinterpret_cast<sockaddr *>(&ss), sl, host, sizeof host, serv, sizeof serv,
                        NI_NUMERICHOST | NI_NUMERICSERV) == 0)
            a->id.peer = std::string(host) + ":" + serv;
        out(show_conn(a->id, "connect", "", json));
        if (tls_ctx && !tls_start(a->tls, tls_ctx, fd))
            drop(*a, a->tls.error);
        aps.push_back(std::move(a));
    }

    ssize_t conn_read(ap_conn &a, void *buf, size_t len)
    {
        if (!tls_ctx)
            return recv(a.sock.fd, buf, len, 0);
        ssize_t n = tls_read(a.tls, buf, len);
        if (!a.tls_seen && tls_ready(a.tls)) {
            a.tls_seen = true;
            a.id.cert = tls_peer_cn(a.tls);
        }
        return n;
    }

    ssize_t conn_write(ap_conn &a, const void *buf, size_t len)
    {
        return tls_ctx ? tls_write(a.tls, buf, len) : send(a.sock.fd, buf, len, MSG_NOSIGNAL);
    }

    // Why the connection failed: TLS names its own reason.
    std::string io_error(const ap_conn &a) const
    {
        return tls_ctx && !a.tls.error.empty() ? a.tls.error : strerror(errno);
    }

    void on_frame(ap_conn &a, const frame &f)
    {
        if (!a.id.hello && f.type != FR_HELLO) {
            drop(a, "frame type " + std::to_string(f.type) + " before HELLO");
            return;
        }
        switch (f.type) {
        case FR_HELLO: {
            hello h;
            if (a.id.hello) {
                drop(a, "second HELLO");
            } else if (!hello_parse(f.payload, h)) {
                drop(a, "HELLO of " + std::to_string(f.payload.size()) + " bytes, needs 10");
            } else {
                a.id.hello = true;
                a.id.name = h.name;
                a.id.mac = h.mac;
                a.id.ip = h.ip;
                store_hello(st, h.mac, h.ip, h.name);
                out(show_conn(a.id, "hello", "", json));
            }
            break;
        }
        case FR_MESSAGE: {
            decoded d = decode_reply(f.payload);
            if (d.error.empty())
                a.pending.erase(d.msg_id);
            if (!quiet || !d.error.empty())
                out(show_message(a.id, f.payload, d, json));
            if (d.error.empty() && d.op == OP_RSSI_REPORT) {
                std::vector<st_event> ev;
                double now = now_s();
                store_report(st, a.id.name, a.id.mac, d.stations, now, ev);
                publish(ev);
                if (http && now - last_stats >= 0.1)
                    publish_stats(now);
            }
            break;
        }
        case FR_PING:
            frame_put(a.out, FR_PONG, f.payload);
            break;
        case FR_PONG:
            break;
        default:
            drop(a, "unknown frame type " + std::to_string(f.type));
        }
    }

    // Reads what arrived: one recv over TCP; over TLS until nothing is left
    // decoded, as no poll would tell of it.
    void read_ap(ap_conn &a)
    {
        while (read_once(a) && tls_ctx && !a.closing) {
        }
    }

    // False when nothing was read.
    bool read_once(ap_conn &a)
    {
        uint8_t buf[16384];
        ssize_t n = conn_read(a, buf, sizeof buf);
        if (n == 0) {
            drop(a, a.in.empty() ? "closed by the AP" : "closed inside a frame");
            return false;
        }
        if (n < 0) {
            if (errno != EAGAIN && errno != EINTR)
                drop(a, io_error(a));
            return false;
        }
        a.in.insert(a.in.end(), buf, buf + n);
        size_t used = 0;
        while (!a.closing) {
            frame f;
            frame_rc rc = frame_take(std::span(a.in).subspan(used), f);
            if (rc == FRAME_MORE)
                break;
            if (rc != FRAME_OK) {
                drop(a, rc == FRAME_TOO_LONG ? "frame length " + std::to_string(f.length) + " over 65536"
                                             : std::string("frame of length 0"));
                break;
            }
            on_frame(a, f);
            used += f.used;
        }
        a.in.erase(a.in.begin(), a.in.begin() + std::ptrdiff_t(std::min(used, a.in.size())));
        return true;
    }

    void write_ap(ap_conn &a)
    {
        ssize_t n = conn_write(a, a.out.data() + a.out_off, a.out.size() - a.out_off);
        if (n < 0) {
            if (errno != EAGAIN && errno != EINTR)
                drop(a, io_error(a));
            return;
        }
        a.out_off += size_t(n);
        if (a.out_off == a.out.size()) {
            a.out.clear();
            a.out_off = 0;
        }
    }

    // The live APs a target names; empty with an error when it names none.
    std::vector<ap_conn *> resolve(const std::string &t)
    {
        std::vector<ap_conn *> r;
        mac_addr m{};
        bool is_mac = parse_mac(t, m);
        for (const auto &a : aps) {
            if (a->closing)
                continue;
            if (t == "all" ? a->id.hello
                           : (t == "#" + std::to_string(a->id.id) ||
                              (a->id.hello && (a->id.name == t || (is_mac && a->id.mac == m)))))
                r.push_back(a.get());
        }
        if (r.empty())
            fail(t == "all" ? "no access point connected" : "unknown AP \"" + t + "\" (see list)");
        return r;
    }

    void send_msg(ap_conn &a, uint16_t op, uint32_t msg_id, const bytes &msg)
    {
        frame_put(a.out, FR_MESSAGE, msg);
        out(show_sent(a.id, op, msg_id, msg.size(), json));
    }

    void run(const command &c)
    {
        switch (c.kind) {
        case CMD_HELP:
            out(command_help);
            break;
        case CMD_LIST:
            if (!json)
                out("#    name                 mac               ip              peer\n");
            for (const auto &a : aps)
                if (!a->closing)
                    out(show_list_row(a->id, json));
            break;
        case CMD_REQUEST:
            for (ap_conn *a : resolve(c.target)) {
                uint32_t id = next_msg_id++;
                a->pending.insert(id);
                send_msg(*a, c.op, id, encode_request(c.op, id, c.tlvs));
            }
            break;
        case CMD_RAW:
            for (ap_conn *a : resolve(c.target)) {
                uint32_t id = c.raw.size() >= 6 ? uint32_t(c.raw[2]) << 24 | uint32_t(c.raw[3]) << 16 |
                                                       uint32_t(c.raw[4]) << 8 | c.raw[5]
                                                 : 0;
                uint16_t op = c.raw.size() >= 13 ? uint16_t(c.raw[11] << 8 | c.raw[12]) : 0;
                send_msg(*a, op, id, c.raw);
            }
            break;
        default:
            break;
        }
    }
};

bool open_listener(server &s, const std::string &addr)
{
    size_t colon = addr.rfind(':');
    std::string host = colon == std::string::npos ? "" : addr.substr(0, colon);
    std::string port = colon == std::string::npos ? "" : addr.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints{}, *res = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    if (host.empty() || port.empty() || getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0) {
        fprintf(stderr, "ltr-server: bad listen address \"%s\" (want host:port)\n", addr.c_str());
        return false;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> guard(res, freeaddrinfo);
    int fd = socket(res->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    if (fd >= 0)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (fd < 0 || bind(fd, res->ai_addr, res->ai_addrlen) != 0 || listen(fd, 64) != 0) {
        fprintf(stderr, "ltr-server: cannot listen on %s: %s\n", addr.c_str(), strerror(errno));
        if (fd >= 0)
            close(fd);
        return false;
    }
    s.listen_sock.fd = fd;
    return true;
}

void usage(FILE *f)
{
    fprintf(f,
            "usage: ltr-server [--listen HOST:PORT] [--tls-cert FILE --tls-key FILE [--tls-ca FILE]]\n"
            "                  [--json] [--duration SECONDS] [--site FILE] [--http HOST:PORT]\n"
            "                  [--mqtt HOST:PORT] [--quiet] [COMMAND...]\n"
            "  --listen HOST:PORT   where access points connect (default 127.0.0.1:7420)\n"
            "  --tls-cert FILE      speak TLS with this certificate (PEM, chain after it)\n"
            "  --tls-key FILE       and this private key (PEM)\n"
            "  --tls-ca FILE        require client certificates signed by this CA (PEM)\n"
            "  --json               one JSON object per line instead of text\n"
            "  --quiet              no line per received message (malformed ones still)\n"
            "  --site FILE          where the access points stand: the [[ap]] tables of a\n"
            "                       world file (name, position, mac, ip, floor)\n"
            "  --timeout SECONDS    a station unheard this long has left (default 30)\n"
            "  --http HOST:PORT     serve the live map and the JSON API there\n"
            "  --mqtt HOST:PORT     publish station states and events to that broker\n"
            "  --mqtt-prefix TEXT   first topic level (default ltr)\n"
            "  --mqtt-id TEXT       this server's name towards the broker (default: host name)\n"
            "  --duration SECONDS   exit after this long; keep serving after the last\n"
            "                       command until then (0: until interrupted)\n"
            "Each COMMAND argument is one command line; without any, commands are read\n"
            "from standard input. Without --duration the server exits after the last one.\n"
            "Exit status: 0; 1 when a command failed, a wait timed out or an AP left with\n"
            "requests unanswered; 2 on bad options.\n\n%s",
            command_help);
}

// What the command line asked for.
struct options {
    std::string listen_addr = "127.0.0.1:7420";
    std::string tls_cert, tls_key, tls_ca;
    double duration = -1; // seconds; negative: until the last command
    bool json = false;
    bool quiet = false;
    std::string site_file, http_addr, mqtt_addr, mqtt_prefix = "ltr", mqtt_id;
    double timeout = 30;
    std::deque<std::string> cmds;
};

// Fills o from argv; -1 to go on, else the exit status.
int parse_options(int argc, char **argv, options &o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *opt) -> const char * {
            if (i + 1 >= argc) {
                fprintf(stderr, "ltr-server: %s needs a value\n", opt);
                exit(2);
            }
            return argv[++i];
        };
        if (a == "--listen" || a == "-l") {
            o.listen_addr = value("--listen");
        } else if (a == "--tls-cert") {
            o.tls_cert = value("--tls-cert");
        } else if (a == "--tls-key") {
            o.tls_key = value("--tls-key");
        } else if (a == "--tls-ca") {
            o.tls_ca = value("--tls-ca");
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--quiet" || a == "-q") {
            o.quiet = true;
        } else if (a == "--site") {
            o.site_file = value("--site");
        } else if (a == "--http") {
            o.http_addr = value("--http");
        } else if (a == "--mqtt") {
            o.mqtt_addr = value("--mqtt");
        } else if (a == "--mqtt-prefix") {
            o.mqtt_prefix = value("--mqtt-prefix");
            if (o.mqtt_prefix.empty() || o.mqtt_prefix.find_first_of("#+") != std::string::npos) {
                fprintf(stderr, "ltr-server: --mqtt-prefix must be a topic without wildcards\n");
                return 2;
            }
        } else if (a == "--mqtt-id") {
            o.mqtt_id = value("--mqtt-id");
        } else if (a == "--timeout") {
            char *end = nullptr;
            const char *v = value("--timeout");
            o.timeout = strtod(v, &end);
            if (!end || *end || !(o.timeout > 0)) {
                fprintf(stderr, "ltr-server: --timeout wants seconds > 0, got \"%s\"\n", v);
                return 2;
            }
        } else if (a == "--duration" || a == "-d") {
            char *end = nullptr;
            const char *v = value("--duration");
            o.duration = strtod(v, &end);
            if (!end || *end || o.duration < 0) {
                fprintf(stderr, "ltr-server: --duration wants seconds >= 0, got \"%s\"\n", v);
                return 2;
            }
        } else if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--") {
            for (++i; i < argc; ++i)
                o.cmds.push_back(argv[i]);
        } else if (a.size() > 1 && a[0] == '-') {
            fprintf(stderr, "ltr-server: unknown option %s\n", a.c_str());
            usage(stderr);
            return 2;
        } else {
            o.cmds.push_back(a);
        }
    }
    if (o.tls_cert.empty() != o.tls_key.empty() || (!o.tls_ca.empty() && o.tls_cert.empty())) {
        fprintf(stderr, "ltr-server: --tls-cert and --tls-key go together, and --tls-ca needs them\n");
        return 2;
    }
    return -1;
}

// The command script: lines still to run, standard input, the wait in progress.
struct script {
    std::deque<std::string> cmds;
    bool input_done = false;
    std::string stdin_buf;
    cmd_kind waiting = CMD_NONE;
    int64_t wait_until = 0;
    unsigned wait_count = 0;
};

// Ends a wait whose condition holds or whose time is up.
void finish_wait(server &s, script &sc, int64_t now)
{
    if (sc.waiting == CMD_NONE)
        return;
    bool met = (sc.waiting == CMD_WAIT_AP && s.hello_count() >= sc.wait_count) ||
               (sc.waiting == CMD_WAIT_REPLY && s.pending_count() == 0);
    if (met) {
        sc.waiting = CMD_NONE;
    } else if (now >= sc.wait_until) {
        if (sc.waiting == CMD_WAIT_AP)
            s.fail("wait-ap: " + std::to_string(s.hello_count()) + " of " +
                   std::to_string(sc.wait_count) + " access points after the timeout");
        else if (sc.waiting == CMD_WAIT_REPLY)
            s.fail("wait-reply: " + std::to_string(s.pending_count()) +
                   " request(s) unanswered after the timeout");
        sc.waiting = CMD_NONE;
    }
}

// Runs commands until one has to wait; true on quit.
bool run_commands(server &s, script &sc)
{
    while (sc.waiting == CMD_NONE && !sc.cmds.empty()) {
        std::string line = sc.cmds.front();
        sc.cmds.pop_front();
        command c;
        std::string err;
        if (!parse_command(line, c, err)) {
            s.fail(err);
            continue;
        }
        switch (c.kind) {
        case CMD_QUIT:
            return true;
        case CMD_WAIT:
        case CMD_WAIT_AP:
        case CMD_WAIT_REPLY:
            sc.waiting = c.kind;
            sc.wait_until = now_ms() + int64_t(c.seconds * 1000);
            sc.wait_count = c.count;
            break;
        default:
            s.run(c);
        }
    }
    return false;
}

// Takes whole lines from standard input as commands; the rest at its end.
void read_stdin(script &sc)
{
    char buf[4096];
    ssize_t n = read(0, buf, sizeof buf);
    if (n <= 0) {
        sc.input_done = true;
        if (!sc.stdin_buf.empty())
            sc.cmds.push_back(sc.stdin_buf);
        sc.stdin_buf.clear();
        return;
    }
    sc.stdin_buf.append(buf, size_t(n));
    size_t nl;
    while ((nl = sc.stdin_buf.find('\n')) != std::string::npos) {
        sc.cmds.push_back(sc.stdin_buf.substr(0, nl));
        sc.stdin_buf.erase(0, nl + 1);
    }
}

// One wait for the listener, standard input and the access points; false when
// polling failed.
bool serve_once(server &s, script &sc, int64_t end)
{
    std::erase_if(s.aps, [](const std::unique_ptr<ap_conn> &a) { return a->closing; });
    std::vector<pollfd> pf;
    pf.push_back({s.listen_sock.fd, POLLIN, 0});
    bool want_stdin = !sc.input_done && sc.waiting == CMD_NONE && sc.cmds.empty();
    pf.push_back({want_stdin ? 0 : -1, POLLIN, 0});
    for (const auto &a : s.aps)
        pf.push_back({a->sock.fd,
                      short(POLLIN | (a->out_off < a->out.size() || a->tls.wants_write ? POLLOUT : 0)),
                      0});
    int64_t timeout = s.dirty.empty() ? 500 : int64_t(server::flush_s * 1000);
    if (sc.waiting != CMD_NONE)
        timeout = std::min(timeout, std::max<int64_t>(0, sc.wait_until - now_ms()));
    if (end >= 0)
        timeout = std::min(timeout, std::max<int64_t>(0, end - now_ms()));
    if (sc.waiting == CMD_NONE && !sc.cmds.empty())
        timeout = 0;
    if (poll(pf.data(), pf.size(), int(timeout)) < 0 && errno != EINTR) {
        perror("ltr-server: poll");
        return false;
    }
    if (pf[0].revents & POLLIN)
        s.accept_one();
    if (pf[1].revents & (POLLIN | POLLHUP))
        read_stdin(sc);
    // pf[2 + i] matches s.aps[i]: nothing was added or removed since pf was built.
    size_t n_aps = pf.size() - 2;
    for (size_t i = 0; i < n_aps; ++i) {
        ap_conn &a = *s.aps[i];
        short re = pf[2 + i].revents;
        // Under TLS any readiness may let the handshake or a read go on.
        if ((re & (POLLIN | POLLHUP | POLLERR)) || (s.tls_ctx && re))
            s.read_ap(a);
        if (!a.closing && (re & POLLOUT))
            s.write_ap(a);
    }
    return true;
}

// Lets queued requests reach the access points before closing.
void flush_all(server &s)
{
    for (const auto &a : s.aps)
        while (!a->closing && a->out_off < a->out.size()) {
            pollfd p{a->sock.fd, POLLOUT, 0};
            if (poll(&p, 1, 1000) <= 0)
                break;
            s.write_ap(*a);
        }
}

} // namespace

int main(int argc, char **argv)
{
    options o;
    if (int rc = parse_options(argc, argv, o); rc >= 0)
        return rc;
    server s;
    s.json = o.json;
    s.quiet = o.quiet;
    if (!o.site_file.empty()) {
        std::string err;
        if (!site_load(o.site_file, s.where, err)) {
            fprintf(stderr, "ltr-server: --site %s\n", err.c_str());
            return 2;
        }
        s.st.where = &s.where;
        s.st.params = s.where.model;
    }
    s.st.params.timeout_s = o.timeout;
    script sc;
    sc.input_done = !o.cmds.empty(); // commands given: standard input is not read
    sc.cmds = std::move(o.cmds);

    struct sigaction sa{};
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::string err;
    if (!o.tls_cert.empty() && !(s.tls_ctx = tls_context(o.tls_cert, o.tls_key, o.tls_ca, err))) {
        fprintf(stderr, "ltr-server: %s\n", err.c_str());
        return 2;
    }
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)> ctx_guard(s.tls_ctx, SSL_CTX_free);
    if (!open_listener(s, o.listen_addr))
        return 2;
    if (!s.json)
        s.out("listening on " + o.listen_addr +
              (!s.tls_ctx ? "" : o.tls_ca.empty() ? " (TLS)" : " (TLS, client certificates required)") + "\n");
    if (!o.http_addr.empty()) {
        std::string err;
        s.http = http_start(o.http_addr, err);
        if (!s.http) {
            fprintf(stderr, "ltr-server: %s\n", err.c_str());
            return 2;
        }
        if (!s.json)
            s.out("map on http://" + o.http_addr + "/\n");
    }
    if (!o.mqtt_addr.empty()) {
        if (o.mqtt_id.empty()) {
            char host[256] = "ltr-server";
            gethostname(host, sizeof host - 1);
            o.mqtt_id = host;
        }
        std::string err;
        s.mqtt = mqtt_start(o.mqtt_addr, o.mqtt_prefix, o.mqtt_id, err);
        if (!s.mqtt) {
            fprintf(stderr, "ltr-server: %s\n", err.c_str());
            return 2;
        }
    }

    const int64_t end = o.duration > 0 ? now_ms() + int64_t(o.duration * 1000) : -1;
    while (!g_signalled) {
        int64_t now = now_ms();
        if (end >= 0 && now >= end)
            break;
        finish_wait(s, sc, now);
        if (run_commands(s, sc))
            break;
        if (sc.waiting == CMD_NONE && sc.cmds.empty() && sc.input_done && o.duration < 0)
            break;
        if (!serve_once(s, sc, end))
            return 1;
        s.tick();
    }
    flush_all(s);
    return s.failures ? 1 : 0;
}
