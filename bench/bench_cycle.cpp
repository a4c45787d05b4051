// The RSSI cycle at its limits: 4 radios of 512 records, 512 owned stations of 64
// readings, every station due, the report built and flushed to a discarding platform.
// The baseline fetches the same tables and reads the same entries, nothing more.
#include <benchmark/benchmark.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <map>
#include <string>

#include "fake_platform.h"
#include "ltr_engine.h"
#include "ltr_rssi.h"
#include "qz_dcd.h"

namespace {

constexpr int radios = 4, recs = QZ_DCD_RPT_TBL_MAX, relayed = LTR_RSSI_MAX - 1;
ltr_cfg cfg{1, 1, 1, 0, 255, 3, 60, 60};
bool ready;

fake::mac_t sta_mac(int i) { return {0x02, 0, 0, 0, (uint8_t)(i >> 8), (uint8_t)i}; }

void setup()
{
    if (ready)
        return;
    fake::reset();
    std::vector<std::pair<std::string, int>> rl;
    for (int r = 0; r < radios; r++)
        rl.push_back({"wifi" + std::to_string(r), 10 + r});
    fake::set_radios(rl);
    for (int r = 0; r < radios; r++) {
        auto &rs = fake::radio_state(10 + r);
        for (int i = 0; i < recs; i++) {
            lta_rpt_entry e{};
            memcpy(e.mac, sta_mac(i).data(), 6);
            e.active = 1;
            e.rssi = (int8_t)(-40 - (i + r * 7) % 50); // moves between radios: due twice over
            e.chan_freq = r % 2 ? 5180 : 2437;
            rs.rpt.push_back(e);
            if (r == radios - 1)
                rs.assoc[sta_mac(i)] = 2437; // found on the last radio asked
        }
    }
    mgt.cfg = &cfg;
    fake::mac_t me{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    memcpy(mgt.my_mac, me.data(), 6);
    mgt.my_ip = 0x0100000a;
    ltr_sta_tbl_init(&mgt.sta_tbl, LTR_STA_MAX);
    mgt.rssi_fetch_timer = qz_pmpt_timer_create(ltr_rssi_cycle, &mgt);
    if (ltr_engine_ops.init(&mgt) != 0)
        fprintf(stderr, "engine init failed: the cycle will not report\n");
    mgt.engine = &ltr_engine_ops;

    ltr_rssi_cycle(mgt.rssi_fetch_timer, &mgt); // creates the stations
    for (ltr_sta *s = mgt.sta_tbl.sta_list.first; s; s = s->list.next) {
        s->ni_owner_ip = mgt.my_ip;
        for (int k = 0; k < relayed; k++) {
            ltr_rssi_data d{{0x0a, 0, 0, 0, 0, (uint8_t)k}, 5180, (int8_t)(-60 - k % 20), 1};
            ltr_rssi_entry *e = ltr_rssi_add(s, &d);
            e->life_start = cfg.hold_time + 1;
            e->life_cnt = INT_MAX; // outlives any run
        }
    }
    fake::set_recording(false);
    ready = true;
}

void BM_cycle(benchmark::State &state)
{
    setup();
    for (auto _ : state)
        ltr_rssi_cycle(mgt.rssi_fetch_timer, &mgt);
    state.SetItemsProcessed(state.iterations() * (int64_t)mgt.sta_tbl.sta_cnt * LTR_RSSI_MAX);
    state.counters["stations"] = mgt.sta_tbl.sta_cnt;
    state.counters["tlv_bytes"] = mgt.omsg ? mgt.omsg->offset : 0;
}

void BM_baseline(benchmark::State &state)
{
    setup();
    static lta_rpt_entry buf[QZ_DCD_RPT_TBL_MAX];
    for (auto _ : state) {
        int64_t sum = 0;
        for (int r = 0; r < radios; r++) {
            int count = QZ_DCD_RPT_TBL_MAX;
            qz_dcd_get_lta_rpt_tbl(10 + r, buf, &count);
            for (int i = 0; i < count; i++)
                sum += buf[i].rssi + buf[i].mac[5];
        }
        for (ltr_sta *s = mgt.sta_tbl.sta_list.first; s; s = s->list.next)
            for (ltr_rssi_entry *e = s->rssi_list; e; e = e->link.next)
                sum += e->rssi_data.rssi + e->life_cnt;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)mgt.sta_tbl.sta_cnt * LTR_RSSI_MAX);
}

BENCHMARK(BM_cycle)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_baseline)->Unit(benchmark::kMicrosecond);

// Prints the cycle's time as a multiple of the baseline measured in the same run.
class ratio_reporter : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, std::pair<double, double>> us; // real, CPU
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (auto &r : runs)
            if (r.run_type == Run::RT_Iteration && r.time_unit == benchmark::kMicrosecond)
                us[r.benchmark_name()] = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime()};
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    ratio_reporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    if (rep.us.count("BM_cycle") && rep.us.count("BM_baseline")) {
        auto [c, cc] = rep.us["BM_cycle"];
        auto [b, bc] = rep.us["BM_baseline"];
        double readings = (double)mgt.sta_tbl.sta_cnt * LTR_RSSI_MAX;
        printf("cycle %.0f us real / %.0f us CPU (%.0f ns CPU per reading); baseline %.0f us real / "
               "%.0f us CPU; ratio %.1f real, %.1f CPU\n",
               c, cc, cc * 1e3 / readings, b, bc, c / b, cc / bc);
    }
    benchmark::Shutdown();
    return 0;
}
