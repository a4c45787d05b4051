// Station table costs at full size (512 stations, 64 readings each): find, add,
// delete and a full walk, with baselines from the same run, and the memory a station
// and a reading really take. Ratios against the baselines are printed at the end.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "ltr_mgt.h"

namespace {

constexpr int n_sta = LTR_STA_MAX;
constexpr int n_rssi = LTR_RSSI_MAX;

struct mac6 {
    uint8_t b[6];
};

// Station MACs as a site would see them: a few vendors, random low bytes.
std::vector<mac6> station_macs(int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::vector<mac6> out;
    static const uint8_t ouis[4][3] = {{0x00, 0x11, 0x22}, {0x3c, 0x22, 0xfb}, {0xa4, 0x83, 0xe7},
                                       {0xf0, 0x18, 0x98}};
    while ((int)out.size() < n) {
        mac6 m;
        memcpy(m.b, ouis[rng() % 4], 3);
        for (int i = 3; i < 6; i++)
            m.b[i] = (uint8_t)rng();
        bool dup = std::any_of(out.begin(), out.end(),
                               [&](const mac6 &o) { return memcmp(o.b, m.b, 6) == 0; });
        if (!dup)
            out.push_back(m);
    }
    return out;
}

ltr_rssi_data reading_of(int ap)
{
    ltr_rssi_data d{};
    d.ap_mac[0] = 0x0a;
    d.ap_mac[4] = (uint8_t)(ap >> 8);
    d.ap_mac[5] = (uint8_t)ap;
    d.chan_freq = 5180;
    d.rssi = (int8_t)(-30 - ap % 60);
    d.active = 1;
    return d;
}

void fill(ltr_sta_tbl *t, const std::vector<mac6> &macs, int readings)
{
    for (auto &m : macs) {
        ltr_sta *s = ltr_sta_add(t, m.b);
        for (int r = 0; r < readings; r++) {
            ltr_rssi_data d = reading_of(r);
            ltr_rssi_add(s, &d);
        }
    }
}

void items_per_op(benchmark::State &st, int per_iteration)
{
    st.SetItemsProcessed((int64_t)st.iterations() * per_iteration);
    // Inverted rate: timed seconds / value; a value of ops / 1e9 makes that ns per op.
    st.counters["ns/op"] = benchmark::Counter((double)st.iterations() * per_iteration * 1e-9,
                                              benchmark::Counter::kIsRate |
                                                  benchmark::Counter::kInvert);
}

// ---- find ----

void BM_sta_find(benchmark::State &st)
{
    ltr_sta_tbl t;
    ltr_sta_tbl_init(&t, n_sta);
    auto macs = station_macs(n_sta, 1);
    fill(&t, macs, 0);
    std::shuffle(macs.begin(), macs.end(), std::mt19937(2));
    for (auto _ : st)
        for (auto &m : macs)
            benchmark::DoNotOptimize(ltr_sta_find(&t, m.b));
    items_per_op(st, n_sta);
    ltr_sta_tbl_flush(&t);
}
BENCHMARK(BM_sta_find);

uint64_t mac_u64(const mac6 &m)
{
    uint64_t v = 0;
    memcpy(&v, m.b, 6);
    return v;
}

// Baseline: the standard library's hash map with the same keys.
void BM_base_hashmap_find(benchmark::State &st)
{
    auto macs = station_macs(n_sta, 1);
    std::unordered_map<uint64_t, int> h;
    for (int i = 0; i < n_sta; i++)
        h[mac_u64(macs[i])] = i;
    std::shuffle(macs.begin(), macs.end(), std::mt19937(2));
    for (auto _ : st)
        for (auto &m : macs)
            benchmark::DoNotOptimize(h.find(mac_u64(m)));
    items_per_op(st, n_sta);
}
BENCHMARK(BM_base_hashmap_find);

// ---- add and delete: fill an empty table to 512, empty it again ----

void BM_sta_add(benchmark::State &st)
{
    ltr_sta_tbl t;
    ltr_sta_tbl_init(&t, n_sta);
    auto macs = station_macs(n_sta, 3);
    for (auto _ : st) {
        for (auto &m : macs)
            benchmark::DoNotOptimize(ltr_sta_add(&t, m.b));
        st.PauseTiming();
        ltr_sta_tbl_flush(&t);
        st.ResumeTiming();
    }
    items_per_op(st, n_sta);
}
BENCHMARK(BM_sta_add);

void BM_sta_del_bymac(benchmark::State &st)
{
    ltr_sta_tbl t;
    ltr_sta_tbl_init(&t, n_sta);
    auto macs = station_macs(n_sta, 3);
    auto order = macs;
    std::shuffle(order.begin(), order.end(), std::mt19937(4));
    for (auto _ : st) {
        st.PauseTiming();
        fill(&t, macs, 0);
        st.ResumeTiming();
        for (auto &m : order)
            ltr_sta_del_bymac(&t, m.b);
    }
    items_per_op(st, n_sta);
}
BENCHMARK(BM_sta_del_bymac);

// Baseline: what allocating and freeing one zero-filled station costs by itself.
void BM_base_calloc_free(benchmark::State &st)
{
    std::vector<void *> p(n_sta);
    for (auto _ : st) {
        for (auto &x : p)
            benchmark::DoNotOptimize(x = calloc(1, sizeof(ltr_sta)));
        for (auto &x : p)
            free(x);
    }
    items_per_op(st, n_sta);
}
BENCHMARK(BM_base_calloc_free);

// ---- the report cycle's walk: every reading of every station ----

void BM_walk_readings(benchmark::State &st)
{
    ltr_sta_tbl t;
    ltr_sta_tbl_init(&t, n_sta);
    fill(&t, station_macs(n_sta, 5), n_rssi);
    for (auto _ : st) {
        int sum = 0;
        for (ltr_sta *s = t.sta_list.first; s; s = s->list.next)
            for (ltr_rssi_entry *e = s->rssi_list; e; e = e->link.next)
                sum += e->rssi_data.rssi;
        benchmark::DoNotOptimize(sum);
    }
    items_per_op(st, n_sta * n_rssi);
    ltr_sta_tbl_flush(&t);
}
BENCHMARK(BM_walk_readings);

// Baseline: the same number of readings in one flat array.
void BM_base_flat_walk(benchmark::State &st)
{
    std::vector<ltr_rssi_data> flat;
    for (int s = 0; s < n_sta; s++)
        for (int r = 0; r < n_rssi; r++)
            flat.push_back(reading_of(r));
    for (auto _ : st) {
        int sum = 0;
        for (auto &d : flat)
            sum += d.rssi;
        benchmark::DoNotOptimize(sum);
    }
    items_per_op(st, n_sta * n_rssi);
}
BENCHMARK(BM_base_flat_walk);

// ---- memory: what the allocator really hands out per record ----

void report_memory()
{
    ltr_sta_tbl t;
    ltr_sta_tbl_init(&t, n_sta);
    fill(&t, station_macs(n_sta, 6), n_rssi);
    size_t sta_bytes = 0, rssi_bytes = 0;
    for (ltr_sta *s = t.sta_list.first; s; s = s->list.next) {
        sta_bytes += malloc_usable_size(s);
        for (ltr_rssi_entry *e = s->rssi_list; e; e = e->link.next)
            rssi_bytes += malloc_usable_size(e);
    }
    // glibc keeps one size word in front of every block in use.
    const double hdr = sizeof(size_t);
    double per_sta = (double)sta_bytes / n_sta + hdr + (double)sizeof(t) / n_sta;
    double per_rssi = (double)rssi_bytes / (n_sta * n_rssi) + hdr;
    printf("\nmemory (512 stations x 64 readings, malloc_usable_size + %d-byte chunk header):\n",
           (int)hdr);
    printf("  station: %.1f B (record %zu B, usable %.1f B, table share %.1f B)\n", per_sta,
           sizeof(ltr_sta), (double)sta_bytes / n_sta, (double)sizeof(t) / n_sta);
    printf("  reading: %.1f B (record %zu B, usable %.1f B); flat array: %zu B -> %.1fx\n",
           per_rssi, sizeof(ltr_rssi_entry), (double)rssi_bytes / (n_sta * n_rssi),
           sizeof(ltr_rssi_data), per_rssi / sizeof(ltr_rssi_data));
    printf("  full table: %.1f KiB\n", (per_sta * n_sta + per_rssi * n_sta * n_rssi) / 1024);
    ltr_sta_tbl_flush(&t);
}

// Keeps each benchmark's ns per operation, then prints the ratios.
class ratio_reporter : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> ns;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (auto &r : runs) {
            auto it = r.counters.find("ns/op");
            if (it != r.counters.end())
                ns[r.benchmark_name()] = it->second.value;
        }
    }
    // With --benchmark_repetitions the means are compared.
    double get(const std::string &name)
    {
        return ns.count(name + "_mean") ? ns[name + "_mean"] : ns.count(name) ? ns[name] : 0;
    }
    void ratio(const char *what, const char *bm, const char *base)
    {
        double a = get(bm), b = get(base);
        if (a > 0 && b > 0)
            printf("  %-28s %8.2f ns/op   %6.2fx %s (%.2f ns/op)\n", what, a, a / b, base, b);
    }
};

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    ratio_reporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    printf("\nratios against baselines of this run:\n");
    rep.ratio("find (512 stations)", "BM_sta_find", "BM_base_hashmap_find");
    rep.ratio("add (up to 512)", "BM_sta_add", "BM_base_calloc_free");
    rep.ratio("delete by MAC (from 512)", "BM_sta_del_bymac", "BM_base_calloc_free");
    rep.ratio("walk, per reading", "BM_walk_readings", "BM_base_flat_walk");
    report_memory();
    benchmark::Shutdown();
    return 0;
}
