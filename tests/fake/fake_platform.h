// A fake platform for the daemon core's tests: records every platform call with its arguments,
// returns scripted results, and lets a test fire timers, deliver events and neighbour messages
// and run CLI commands by hand. Nothing happens on its own: no thread, no timer, no socket.
#pragma once
#include <stdint.h>

#include <array>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "qz.h"
#include "qz_capwap.h"
#include "qz_cli.h"
#include "qz_db.h"
#include "qz_dcd.h"
#include "qz_event.h"
#include "qz_hw.h"
#include "qz_log.h"
#include "qz_mpi.h"
#include "qz_nbrcom.h"
#include "qz_sys.h"
#include "qz_top.h"
#include "qz_tpa.h"

namespace fake {

using bytes = std::vector<uint8_t>;
using mac_t = std::array<uint8_t, 6>;

// args: integer arguments in order; text: string argument or formatted text; data: buffer.
struct call { std::string fn; std::vector<int64_t> args; std::string text; bytes data; };

// Everything back to a fresh platform (the shared segment and the store too).
void reset();

const std::vector<call> &calls();
std::vector<call> calls_of(const std::string &fn);
size_t count(const std::string &fn);
std::vector<std::string> call_names(); // in order
void clear_calls();
// Off: calls and sends are no longer recorded (benchmarks); scripts still apply.
void set_recording(bool on);
// Off: log, debug, hexdump and CLI text is neither formatted nor kept: logs(), dbgs()
// and cli_text() stay empty. For fuzzing, where nothing reads it.
void set_keep_text(bool on);

// The next `times` calls of fn return result instead of the default.
void script(const std::string &fn, int result, int times = 1);

// Runs hook whenever fn is called, before the call acts; an empty hook removes it.
void on_call(const std::string &fn, std::function<void()> hook);

struct log_line { int category, severity; std::string text; };
struct dbg_line { std::string tag; int line; std::string text; };
const std::vector<log_line> &logs();
const std::vector<dbg_line> &dbgs();
std::string log_text(); // all qz_log lines concatenated
std::string cli_text(); // qz_cli_printf output
void clear_text();
// Also write every qz_log line to stderr (death tests read it there).
void echo_logs(bool on);
bool dbg_has(const std::string &text); // some debug line equals text
bool log_has(const std::string &text);

struct timer { qz_pmpt_timer_cb cb; void *arg; bool armed; unsigned period; }; // period: of the last start
timer &timer_state(qz_pmpt_timer_t *t);
void fire(qz_pmpt_timer_t *t); // disarms, then runs the callback on this thread

// Radios (name, ifindex): the only interfaces if_nametoindex and if_indextoname know.
void set_radios(const std::vector<std::pair<std::string, int>> &radios);
struct radio {
    int track_enable = -1, lmatch = -1;
    std::vector<lta_trackobj> trackobjs; // every object call, in order
    std::vector<lta_rpt_entry> rpt;      // what the next report-table fetches return
    std::map<mac_t, uint16_t> assoc;     // associated stations and their frequency
    lta_stats stats{};
};
radio &radio_state(int ifindex);

void set_mgt(const mac_t &mac, uint32_t ip_net_order);

void deliver_event(uint32_t id, bytes payload);
void deliver_kevent(uint32_t id, bytes payload);
struct sent { uint32_t id; bytes data; }; // id: event id, or a neighbour's IPv4 address
const std::vector<sent> &events_sent(); // qz_event_send
const std::vector<sent> &capwap_sent(); // qz_capwap_send_event
const std::vector<sent> &hc_sent();     // qz_hc3u_send

bool hc_registered();
const qz_hc_reg &hc_last_reg();

// Shared memory: survives reset_keep_shm(); reset() clears it.
void reset_keep_shm();

// Store: ordered by key bytes.
std::map<bytes, bytes> &db();

// Runs the nth (0 = first) vector registered for cmd_id on block; output is in cli_text().
int run_cmd(int cmd_id, bool negated, const bytes &block, int nth = 0, uint16_t type = 17);
struct cfg_tlv { int cmd_id; bytes block; int tag; };
std::vector<cfg_tlv> run_cfg_gen();

// System readiness: qz_sys_ready returns 0 this many times, then 1.
void set_not_ready_polls(int n);

} // namespace fake
