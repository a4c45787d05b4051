// The RSSI cycle at its limits, shared by the benchmarks of the cycle on each platform:
// 4 radios of 512 records, 512 owned stations, each heard by this AP and by reporters-1
// neighbours, every station due, the report built and flushed. The baseline fetches the
// same tables into the same buffer and reads every record with the association look-ups
// each record of an owned station needs (the same platform calls), then walks the same
// stations and readings in the table's own memory: the bare cost of the data the cycle
// touches. Include in one file per program, which defines cycle_platform_prepare.
#pragma once
#include <benchmark/benchmark.h>
#include <limits.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "ltr_engine.h"
#include "ltr_rssi.h"
#include "qz_dcd.h"
#include "qz_hw.h"

namespace cycle_bench {

constexpr int radios = 4, recs = QZ_DCD_RPT_TBL_MAX;
inline const uint8_t me[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
inline const uint32_t my_ip = 0x0100000a;

// What radio r reports about station i, and the one radio stations are associated with.
inline void sta_mac(int i, uint8_t *mac)
{
    const uint8_t m[6] = {0x02, 0, 0, 0, (uint8_t)(i >> 8), (uint8_t)i};
    memcpy(mac, m, 6);
}
inline int8_t sta_rssi(int r, int i) { return (int8_t)(-40 - (i + r * 7) % 50); } // due twice over
inline uint16_t radio_freq(int r) { return r % 2 ? 5180 : 2437; }
constexpr int assoc_radio = radios - 1; // found on the last radio asked
constexpr uint16_t assoc_freq = 2437;

} // namespace cycle_bench

// Makes the platform's radios report the records above; returns their interface
// indexes in radio order (fewer than 4 when the platform has fewer), or none on failure.
std::vector<int> cycle_platform_prepare();

namespace cycle_bench {
namespace {

ltr_cfg cfg{1, 1, 1, 0, 255, 3, 60, 60};
std::vector<int> ifindexes;
int built = -1; // reporters per station of the table in place
ltr_engine_ops_t collect_only;

bool setup(int reporters)
{
    if (built == reporters)
        return true;
    if (built < 0) {
        ifindexes = cycle_platform_prepare();
        if (ifindexes.empty())
            return false;
        mgt.cfg = &cfg;
        memcpy(mgt.my_mac, me, 6);
        mgt.my_ip = my_ip;
        mgt.rssi_fetch_timer = qz_pmpt_timer_create(ltr_rssi_cycle, &mgt);
        if (ltr_engine_ops.init(&mgt) != 0)
            return false;
        mgt.engine = &ltr_engine_ops;
    } else {
        ltr_sta_tbl_flush(&mgt.sta_tbl);
    }
    ltr_sta_tbl_init(&mgt.sta_tbl, LTR_STA_MAX);
    ltr_rssi_cycle(mgt.rssi_fetch_timer, &mgt); // creates the stations, each with its own reading
    for (ltr_sta *s = mgt.sta_tbl.sta_list.first; s; s = s->list.next) {
        s->ni_owner_ip = mgt.my_ip;
        for (int k = 0; k < reporters - 1; k++) {
            ltr_rssi_data d{{0x0a, 0, 0, 0, 0, (uint8_t)k}, 5180, (int8_t)(-60 - k % 20), 1};
            ltr_rssi_entry *e = ltr_rssi_add(s, &d); // newer than the own reading: it ends last
            e->life_start = cfg.hold_time + 1;
            e->life_cnt = INT_MAX; // outlives any run
        }
    }
    built = reporters;
    return true;
}

int64_t readings() { return (int64_t)mgt.sta_tbl.sta_cnt * built; }

void BM_cycle(benchmark::State &state)
{
    if (!setup((int)state.range(0)))
        return state.SkipWithError("the platform's radios could not be prepared");
    for (auto _ : state)
        ltr_rssi_cycle(mgt.rssi_fetch_timer, &mgt);
    state.SetItemsProcessed(state.iterations() * readings());
    state.counters["stations"] = mgt.sta_tbl.sta_cnt;
}

// Collection alone: an engine that refuses the report leaves the cycle after storing the
// records. Finding each station's own reading must not depend on its other reporters.
void BM_collect(benchmark::State &state)
{
    if (!setup((int)state.range(0)))
        return state.SkipWithError("the platform's radios could not be prepared");
    collect_only = ltr_engine_ops;
    collect_only.reset = [](ltr_mgt *) { return -1; };
    mgt.engine = &collect_only;
    for (auto _ : state)
        ltr_rssi_cycle(mgt.rssi_fetch_timer, &mgt);
    mgt.engine = &ltr_engine_ops;
    state.SetItemsProcessed(state.iterations() * (int64_t)ifindexes.size() * recs);
}

void BM_baseline(benchmark::State &state)
{
    if (!setup((int)state.range(0)))
        return state.SkipWithError("the platform's radios could not be prepared");
    static lta_rpt_entry buf[QZ_DCD_RPT_TBL_MAX];
    for (auto _ : state) {
        int64_t sum = 0;
        for (int ifindex : ifindexes) {
            int count = QZ_DCD_RPT_TBL_MAX;
            qz_dcd_get_lta_rpt_tbl(ifindex, buf, &count);
            for (int i = 0; i < count; i++) {
                sum += buf[i].rssi + buf[i].mac[5];
                // Every station is owned: each record asks the radios for its association
                // until one knows it, as the cycle must.
                for (int j = 0; j < qz_radio_count(); j++) {
                    alignas(4) static uint8_t sta[QZ_DCD_STA_BUF_LEN];
                    int len = 0;
                    if (qz_dcd_get_radio_one_sta((int)if_nametoindex(qz_ifname_id2radio(j)), buf[i].mac, sta,
                                                 QZ_DCD_STA_BUF_LEN, &len) == 0) {
                        sum += sta[2];
                        break;
                    }
                }
            }
        }
        for (ltr_sta *s = mgt.sta_tbl.sta_list.first; s; s = s->list.next)
            for (ltr_rssi_entry *e = s->rssi_list; e; e = e->link.next)
                sum += e->rssi_data.rssi + e->life_cnt;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * readings());
}

BENCHMARK(BM_cycle)->Arg(1)->Arg(LTR_RSSI_MAX)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_collect)->Arg(1)->Arg(LTR_RSSI_MAX)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_baseline)->Arg(1)->Arg(LTR_RSSI_MAX)->Unit(benchmark::kMicrosecond);

// Keeps the CPU time of each run, by name ("BM_cycle/64").
class ratio_reporter : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> cpu_us;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (auto &r : runs)
            if (r.run_type == Run::RT_Iteration && r.time_unit == benchmark::kMicrosecond && !r.error_occurred)
                cpu_us[r.benchmark_name()] = r.GetAdjustedCPUTime();
        ConsoleReporter::ReportRuns(runs);
    }
};

// Runs the benchmarks, then prints the cycle against its baseline (CPU time) per
// reporter count, and how collection grows from 1 reporter per station to the most.
int run(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    ratio_reporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    auto us = [&](const char *bm, int n) {
        auto it = rep.cpu_us.find(std::string(bm) + "/" + std::to_string(n));
        return it == rep.cpu_us.end() ? 0.0 : it->second;
    };
    printf("radios %zu, stations %d\n", ifindexes.size(), mgt.sta_tbl.sta_cnt);
    for (int n : {1, LTR_RSSI_MAX}) {
        double c = us("BM_cycle", n), b = us("BM_baseline", n);
        if (c > 0 && b > 0)
            printf("reporters %2d: cycle %.1f us CPU (%.1f ns per reading), baseline %.1f us CPU, "
                   "cycle/baseline %.2f\n",
                   n, c, c * 1e3 / (512.0 * n), b, c / b);
    }
    double c1 = us("BM_collect", 1), c64 = us("BM_collect", LTR_RSSI_MAX);
    if (c1 > 0 && c64 > 0)
        printf("collection: %.1f us CPU at 1 reporter, %.1f us at %d; %d/1 %.2f\n", c1, c64, LTR_RSSI_MAX,
               LTR_RSSI_MAX, c64 / c1);
    benchmark::Shutdown();
    return 0;
}

} // namespace
} // namespace cycle_bench

int main(int argc, char **argv) { return cycle_bench::run(argc, argv); }
