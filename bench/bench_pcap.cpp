// Frames per second through the pcap driver's per-frame path (parse, then aggregate into
// the radio's state under its lock, as the capture thread does), against a bare libpcap
// read loop over the same file. Each path reads the whole file `passes` times, as fast
// as it can; the best of `rounds` rounds counts, in CPU time and in wall time.
// Usage: bench_pcap FILE [passes] [rounds]. bench/pcap.sh adds tshark and the ratios.
#include <pcap/pcap.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include "radio_frames.h"

namespace {

constexpr uint32_t k_window_stations = 1024; // as the driver's window

struct times {
    double cpu, wall;
};

double now(clockid_t c)
{
    timespec ts;
    clock_gettime(c, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// Reads the file once, handing every frame to fn; the number of frames, -1 on error.
template <typename F> long read_file(const char *path, F &&fn)
{
    char err[PCAP_ERRBUF_SIZE] = "";
    pcap_t *h = pcap_open_offline(path, err);
    if (!h) {
        fprintf(stderr, "bench_pcap: %s: %s\n", path, err);
        return -1;
    }
    long n = 0;
    pcap_pkthdr *hdr;
    const u_char *data;
    while (pcap_next_ex(h, &hdr, &data) == 1) {
        fn(data, hdr->caplen);
        ++n;
    }
    pcap_close(h);
    return n;
}

template <typename F> times measure(int passes, F &&pass)
{
    const double c0 = now(CLOCK_PROCESS_CPUTIME_ID), w0 = now(CLOCK_MONOTONIC);
    for (int i = 0; i < passes; i++)
        pass();
    return {now(CLOCK_PROCESS_CPUTIME_ID) - c0, now(CLOCK_MONOTONIC) - w0};
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILE [passes] [rounds]\n", argv[0]);
        return 2;
    }
    const char *path = argv[1];
    const int passes = argc > 2 ? std::max(1, atoi(argv[2])) : 300;
    const int rounds = argc > 3 ? std::max(1, atoi(argv[3])) : 5;

    uint64_t sink = 0; // keeps the bare loop's reads
    const long frames = read_file(path, [&](const u_char *d, uint32_t len) { sink += d[0] + len; });
    if (frames <= 0) {
        fprintf(stderr, "bench_pcap: %s: no frames\n", path);
        return 1;
    }

    std::atomic<uint64_t> c[10]{};
    qz_pcap_frames st;
    st.cnt = {&c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7], &c[8], &c[9]};
    qz_sw_init(st.win, k_window_stations, false);
    std::vector<lta_rpt_entry> fetched(k_window_stations);
    std::mutex mu;

    auto bare = [&] { read_file(path, [&](const u_char *d, uint32_t len) { sink += d[0] + len; }); };
    auto driver = [&] {
        read_file(path, [&](const u_char *d, uint32_t len) {
            std::lock_guard l(mu);
            qz_pcap_take(st, {d, len});
        });
        std::lock_guard l(mu);
        qz_sw_fetch(st.win, fetched); // one report window per pass
    };
    driver(); // the first pass: what the driver makes of the file, and warm caches
    char first[200];
    snprintf(first, sizeof first,
             "first pass: %lu read, %lu kept, %lu no signal, %lu bad FCS, %lu malformed, %lu not from a station",
             (unsigned long)c[0], (unsigned long)c[1], (unsigned long)c[2], (unsigned long)c[3],
             (unsigned long)c[4], (unsigned long)c[5]);

    times best_bare{1e30, 1e30}, best_drv{1e30, 1e30};
    for (int r = 0; r < rounds; r++) { // interleaved, so both see the same machine
        times b = measure(passes, bare), d = measure(passes, driver);
        best_bare = {std::min(best_bare.cpu, b.cpu), std::min(best_bare.wall, b.wall)};
        best_drv = {std::min(best_drv.cpu, d.cpu), std::min(best_drv.wall, d.wall)};
    }
    const double total = double(frames) * passes;
    auto fps = [&](double s) { return total / s; };
    printf("file: %s, %ld frames, %d passes per round, best of %d rounds\n", path, frames, passes, rounds);
    printf("%-22s %12.0f frames/s (CPU)  %12.0f frames/s (wall)\n", "bare libpcap loop", fps(best_bare.cpu),
           fps(best_bare.wall));
    printf("%-22s %12.0f frames/s (CPU)  %12.0f frames/s (wall)\n", "driver per-frame path", fps(best_drv.cpu),
           fps(best_drv.wall));
    printf("driver / bare: %.0f %% (CPU), %.0f %% (wall)\n", 100 * best_bare.cpu / best_drv.cpu,
           100 * best_bare.wall / best_drv.wall);
    printf("%s\n", first);
    printf("result frames=%ld bare_cpu=%.0f bare_wall=%.0f driver_cpu=%.0f driver_wall=%.0f sink=%lu\n", frames,
           fps(best_bare.cpu), fps(best_bare.wall), fps(best_drv.cpu), fps(best_drv.wall),
           (unsigned long)(sink & 1));
    return 0;
}
