// Driver "pcap": stations heard in 802.11 frames with radiotap headers, read through
// libpcap from a live monitor-mode interface or from a capture file (or FIFO) replayed
// in capture time. One capture thread per radio fills the station window; the report
// table only copies out of it under the radio's lock. On a live radio the same thread
// refreshes, from nl80211, which stations are associated with the access point.
#include <fcntl.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "drv_pcap.h"
#include "drv_track.h"
#include "nl80211_sock.h"
#include "pcap_lib.h"
#include "radio_frames.h"
#include "rt_counter.h"
#include "rt_log.h"
#include "rt_process.h"

namespace {

constexpr uint32_t k_window_stations = 1024; // stations kept per radio between fetches
constexpr int k_snaplen = 256;               // radiotap + the 802.11 header, with room
constexpr int k_live_timeout_ms = 200;       // how often a live capture checks for close
// Associations change at human pace; the owner service may ask per station per cycle.
constexpr auto k_assoc_refresh = std::chrono::seconds(1);
// What the driver reads: management, data and the control frames that name a sender.
constexpr const char *k_live_filter =
    "type mgt or type data or (type ctl and not (subtype cts or subtype ack))";

using clk = std::chrono::steady_clock;

struct pcap_radio {
    std::string name;
    pcap_radio_conf conf;
    std::string source;      // the file or interface, for log lines
    bool live = false;
    bool fifo = false;
    pcap_t *h = nullptr;
    pthread_t thread{};
    bool started = false;
    std::unique_ptr<qz_nl80211> nl; // live: the association look-up, owned by the capture thread
    bool nl_failing = false;        // its failure is logged once, until it works again

    std::mutex mu;           // everything below
    std::condition_variable wake; // close while the replay waits
    bool quit = false;
    bool done = false;       // the capture ended (file without loop, or an error)
    drv_track trk;
    qz_pcap_frames st;                  // what the frames built up
    std::vector<lta_rpt_entry> fetched; // fetch buffer, sized once
};

pcap_radio *priv(rt_radio *r) { return static_cast<pcap_radio *>(r->priv); }

std::atomic<uint64_t> &counter(const std::string &radio, const char *what)
{
    return rt_counter(("pcap." + radio + "." + what).c_str());
}

void counters_init(pcap_radio &p)
{
    p.st.cnt = {&counter(p.name, "frames_read"), &counter(p.name, "kept"),
                &counter(p.name, "no_signal"),  &counter(p.name, "bad_fcs"),
                &counter(p.name, "malformed"),  &counter(p.name, "not_station"),
                &counter(p.name, "kernel_drops"), &counter(p.name, "local_ignored"),
                &counter(p.name, "evicted"), &counter(p.name, "associated")};
}

// Waits until the wall-clock moment of a frame; false when the radio closes meanwhile.
bool pace(pcap_radio &p, clk::time_point at)
{
    std::unique_lock l(p.mu);
    p.wake.wait_until(l, at, [&] { return p.quit; });
    return !p.quit;
}

bool quitting(pcap_radio &p)
{
    std::lock_guard l(p.mu);
    return p.quit;
}

void replay(pcap_radio &p)
{
    for (;;) {
        bool first = true;
        double t0 = 0;
        clk::time_point w0;
        pcap_pkthdr *hdr;
        const u_char *data;
        int rc;
        while ((rc = pcap_fn().next_ex(p.h, &hdr, &data)) == 1) {
            double t = double(hdr->ts.tv_sec) + double(hdr->ts.tv_usec) / 1e6;
            if (first) {
                t0 = t, w0 = clk::now(), first = false;
            } else if (t > t0) {
                auto due = w0 + std::chrono::duration_cast<clk::duration>(
                                    std::chrono::duration<double>((t - t0) / p.conf.speed));
                if (due > clk::now() && !pace(p, due))
                    return;
            }
            std::lock_guard l(p.mu);
            if (p.quit)
                return;
            qz_pcap_take(p.st, {data, hdr->caplen});
        }
        if (rc == PCAP_ERROR && !quitting(p))
            rt_log(LOG_ERR, "pcap: %s: %s: %s", p.name.c_str(), p.source.c_str(),
                   pcap_fn().geterr(p.h));
        if (!p.conf.loop || rc == PCAP_ERROR || first || quitting(p))
            return;
        char err[PCAP_ERRBUF_SIZE] = "";
        pcap_t *again = pcap_fn().open_offline(p.source.c_str(), err);
        if (!again) {
            rt_log(LOG_ERR, "pcap: %s: reopening %s: %s", p.name.c_str(), p.source.c_str(), err);
            return;
        }
        std::lock_guard l(p.mu);
        pcap_fn().close(p.h);
        p.h = again;
    }
}

void on_live_frame(u_char *arg, const pcap_pkthdr *hdr, const u_char *data)
{
    auto &p = *reinterpret_cast<pcap_radio *>(arg);
    std::lock_guard l(p.mu);
    qz_pcap_take(p.st, {data, hdr->caplen});
}

// Live: the access point interface's associations, asked outside the radio's lock and
// swapped in under it. When the kernel cannot tell, nobody counts as associated.
void refresh_assoc(pcap_radio &p)
{
    std::vector<qz_nl_mac> stas;
    uint32_t freq = 0;
    std::string err;
    bool ok = false;
    if (unsigned ifindex = if_nametoindex(p.name.c_str()); !ifindex)
        err = "no such interface";
    else
        ok = qz_nl_associated(*p.nl, ifindex, stas, freq, err);
    std::unordered_map<uint64_t, uint16_t> fresh;
    for (const qz_nl_mac &m : stas)
        if (fresh.size() < QZ_PCAP_MAX_KNOWN)
            fresh[qz_pcap_mac_key(m.data())] = uint16_t(freq);
    if (!ok && !p.nl_failing)
        rt_log(LOG_WARNING, "pcap: %s: associated stations unknown: %s", p.name.c_str(), err.c_str());
    else if (ok && p.nl_failing)
        rt_log(LOG_INFO, "pcap: %s: associated stations known again", p.name.c_str());
    p.nl_failing = !ok;
    *p.st.cnt.associated = fresh.size();
    std::lock_guard l(p.mu);
    p.st.assoc.swap(fresh);
}

void live(pcap_radio &p)
{
    clk::time_point next_assoc{};
    while (!quitting(p)) {
        if (p.nl && clk::now() >= next_assoc) {
            refresh_assoc(p);
            next_assoc = clk::now() + k_assoc_refresh;
        }
        int rc = pcap_fn().dispatch(p.h, -1, on_live_frame, reinterpret_cast<u_char *>(&p));
        if (rc == PCAP_ERROR) {
            rt_log(LOG_ERR, "pcap: %s: %s: %s", p.name.c_str(), p.source.c_str(),
                   pcap_fn().geterr(p.h));
            return;
        }
        pcap_stat ps;
        if (pcap_fn().stats(p.h, &ps) == 0)
            *p.st.cnt.kernel_drop = uint64_t(ps.ps_drop) + ps.ps_ifdrop;
    }
}

void *capture_thread(void *arg)
{
    auto &p = *static_cast<pcap_radio *>(arg);
    if (p.live)
        live(p);
    else
        replay(p);
    std::lock_guard l(p.mu);
    p.done = true;
    p.wake.notify_all();
    return nullptr;
}

// A read waiting on an idle FIFO writer: bytes that no capture record can start with
// (an absurd length) end it with an error, which the quitting thread does not log.
void unblock_fifo(const pcap_radio &p)
{
    int fd = open(p.source.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return; // no reader left: the thread is not waiting there
    std::vector<uint8_t> junk(4096, 0xff);
    ssize_t n = write(fd, junk.data(), junk.size());
    (void)n; // a full pipe means the thread has data and will see quit
    close(fd);
}

bool is_fifo(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
}

// Opens the radio's source; null (logged) when it cannot be read or is not radiotap.
pcap_t *open_source(pcap_radio &p)
{
    char err[PCAP_ERRBUF_SIZE] = "";
    pcap_t *h;
    std::string why;
    if (!pcap_lib_load(why)) {
        rt_log(LOG_ERR, "pcap: %s: %s", p.name.c_str(), why.c_str());
        return nullptr;
    }
    if (!p.live) {
        if (!(h = pcap_fn().open_offline(p.source.c_str(), err))) {
            rt_log(LOG_ERR, "pcap: %s: cannot read %s: %s", p.name.c_str(), p.source.c_str(), err);
            return nullptr;
        }
    } else {
        if (!(h = pcap_fn().create(p.source.c_str(), err))) {
            rt_log(LOG_ERR, "pcap: %s: cannot capture on %s: %s", p.name.c_str(), p.source.c_str(), err);
            return nullptr;
        }
        pcap_fn().set_snaplen(h, k_snaplen);
        pcap_fn().set_immediate_mode(h, 1);
        pcap_fn().set_timeout(h, k_live_timeout_ms);
        if (int rc = pcap_fn().activate(h); rc < 0) {
            rt_log(LOG_ERR, "pcap: %s: cannot capture on %s: %s", p.name.c_str(), p.source.c_str(),
                   rc == PCAP_ERROR ? pcap_fn().geterr(h) : pcap_fn().statustostr(rc));
            pcap_fn().close(h);
            return nullptr;
        }
    }
    int dlt = pcap_fn().datalink(h);
    if (dlt != DLT_IEEE802_11_RADIO) {
        const char *dn = pcap_fn().datalink_val_to_name(dlt);
        rt_log(LOG_ERR, "pcap: %s: %s has link type %s (%d), not radiotap", p.name.c_str(),
               p.source.c_str(), dn ? dn : "unknown", dlt);
        pcap_fn().close(h);
        return nullptr;
    }
    if (p.live) {
        bpf_program prog;
        if (pcap_fn().compile(h, &prog, k_live_filter, 1, PCAP_NETMASK_UNKNOWN) != 0 ||
            pcap_fn().setfilter(h, &prog) != 0) {
            rt_log(LOG_WARNING, "pcap: %s: no capture filter on %s (%s): every frame is read",
                   p.name.c_str(), p.source.c_str(), pcap_fn().geterr(h));
        }
        pcap_fn().freecode(&prog);
    }
    return h;
}

bool pcap_config_key(rt_radio_cfg &cfg, const rt_cfg_key &k)
{
    pcap_radio_conf &c = rt_radio_conf<pcap_radio_conf>(cfg);
    if (strcmp(k.key, "capture") == 0)
        return rt_cfg_str(k, c.capture);
    if (strcmp(k.key, "monitor") == 0)
        return rt_cfg_str(k, c.monitor);
    if (strcmp(k.key, "speed") == 0)
        return rt_cfg_num(k, c.speed, 1e-3, 1e9);
    if (strcmp(k.key, "loop") == 0)
        return rt_cfg_bool(k, c.loop);
    if (strcmp(k.key, "ignore_local") == 0)
        return rt_cfg_bool(k, c.ignore_local);
    return rt_cfg_fail(k, "unknown key");
}

int pcap_open_radio(rt_radio *r)
{
    auto p = std::make_unique<pcap_radio>();
    p->name = r->cfg.name;
    p->conf = rt_radio_conf<pcap_radio_conf>(std::as_const(r->cfg));
    if (p->conf.capture.empty() == p->conf.monitor.empty()) {
        rt_log(LOG_ERR, "pcap: %s: give either capture (a file) or monitor (an interface)",
               p->name.c_str());
        return -1;
    }
    p->live = p->st.live = !p->conf.monitor.empty();
    p->source = p->live ? p->conf.monitor : p->conf.capture;
    p->fifo = !p->live && is_fifo(p->source);
    if (p->fifo)
        p->conf.loop = false; // a FIFO cannot be read twice
    counters_init(*p);
    qz_sw_init(p->st.win, k_window_stations, p->conf.ignore_local);
    if (p->live) {
        // Without nl80211 the capture still runs; only the associations are missing.
        std::string err;
        p->nl = std::make_unique<qz_nl80211>();
        if (!qz_nl_open(*p->nl, err)) {
            rt_log(LOG_WARNING, "pcap: %s: associated stations unknown: %s", p->name.c_str(), err.c_str());
            p->nl.reset();
        }
    }
    p->fetched.resize(k_window_stations);
    if (!(p->h = open_source(*p)))
        return -1;
    if (int e = rt_thread_create(&p->thread, capture_thread, p.get(), "pcap",
                                 RT_STACK_DAEMON)) {
        rt_log(LOG_ERR, "pcap: %s: cannot start the capture thread: %s", p->name.c_str(), strerror(e));
        pcap_fn().close(p->h);
        return -1;
    }
    p->started = true;
    r->priv = p.release();
    return 0;
}

void pcap_close_radio(rt_radio *r)
{
    pcap_radio *p = priv(r);
    if (!p)
        return;
    {
        std::lock_guard l(p->mu);
        p->quit = true;
        p->wake.notify_all();
        if (p->live)
            pcap_fn().breakloop(p->h);
    }
    if (p->fifo)
        unblock_fifo(*p);
    if (p->started)
        pthread_join(p->thread, nullptr);
    pcap_fn().close(p->h);
    delete p;
    r->priv = nullptr;
}

int pcap_set_track_enable(rt_radio *r, int enable)
{
    std::lock_guard l(priv(r)->mu);
    drv_set_track(priv(r)->trk, enable);
    return 0;
}

int pcap_set_lmatch(rt_radio *r, int value)
{
    std::lock_guard l(priv(r)->mu);
    drv_set_lmatch(priv(r)->trk, value);
    return 0;
}

int pcap_set_trackobj(rt_radio *r, const lta_trackobj *obj)
{
    std::lock_guard l(priv(r)->mu);
    return drv_set_trackobj(priv(r)->trk, obj);
}

int pcap_get_rpt_tbl(rt_radio *r, lta_rpt_entry *buf, int *count)
{
    if (!buf || !count || *count < 0)
        return -1;
    pcap_radio &p = *priv(r);
    std::lock_guard l(p.mu);
    // The window ends at every fetch, tracking on or off: no stale readings later.
    uint32_t n = qz_sw_fetch(p.st.win, p.fetched);
    std::vector<drv_heard> heard(n);
    for (uint32_t i = 0; i < n; i++) {
        const lta_rpt_entry &e = p.fetched[i];
        memcpy(heard[i].mac.data(), e.mac, 6);
        heard[i].rssi = e.rssi;
        heard[i].active = e.active;
        heard[i].freq = e.chan_freq;
    }
    drv_report(p.trk, heard, buf, count);
    return 0;
}

int pcap_get_one_sta(rt_radio *r, const uint8_t *mac, void *buf, int buflen, int *len)
{
    if (!mac || !buf)
        return -1;
    pcap_radio &p = *priv(r);
    std::lock_guard l(p.mu);
    auto it = p.st.assoc.find(qz_pcap_mac_key(mac));
    if (it == p.st.assoc.end())
        return -1;
    return drv_one_sta(buf, buflen, mac, it->second, len);
}

int pcap_get_stats(rt_radio *r, lta_stats *st)
{
    if (!st)
        return -1;
    std::lock_guard l(priv(r)->mu);
    *st = priv(r)->trk.stats;
    return 0;
}

} // namespace

const rt_driver_ops rt_driver_pcap = {
    .name = "pcap",
    .config_key = pcap_config_key,
    .section_key = nullptr,
    .open = pcap_open_radio,
    .close = pcap_close_radio,
    .set_track_enable = pcap_set_track_enable,
    .set_lmatch = pcap_set_lmatch,
    .set_trackobj = pcap_set_trackobj,
    .get_rpt_tbl = pcap_get_rpt_tbl,
    .get_one_sta = pcap_get_one_sta,
    .get_stats = pcap_get_stats,
};

bool pcap_radio_done(rt_radio *r)
{
    std::lock_guard l(priv(r)->mu);
    return priv(r)->done;
}
