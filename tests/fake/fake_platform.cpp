// The fake platform: every declared platform call, recorded and scripted.
#include "fake_platform.h"

#include <net/if.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <mutex>

#include "qz_evt_names.h"
#include "qz_format.h"

namespace fake {
namespace {

std::recursive_mutex mu; // the daemon may call in from a thread of ltr_main's
using G = std::lock_guard<std::recursive_mutex>;

struct state {
    std::vector<call> calls;
    std::map<std::string, std::deque<int>> scripts;
    std::vector<log_line> logs;
    std::vector<dbg_line> dbgs;
    std::string cli;
    std::vector<std::unique_ptr<timer>> timers;
    std::vector<std::pair<std::string, int>> radios;
    std::map<int, radio> radio_states;
    mac_t mgt_mac{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint32_t mgt_ip = 0x0100000a; // 10.0.0.1 in network order on little-endian hosts
    std::map<uint32_t, qz_event_handler> subs, ksubs;
    std::vector<sent> events_sent, capwap_sent, hc_sent;
    qz_hc_reg last_reg{};
    std::map<bytes, bytes> db;
    std::vector<std::pair<int, qz_cli_cmd_fn>> vectors;
    qz_cli_cfg_gen_fn gen = nullptr;
    int not_ready = 0;
    std::map<std::string, std::function<void()>> hooks;
    bool hc_reg = false, echo_logs = false, recording = true, keep_text = true;
};

state &S() { static state s; return s; }

// Shared segments and their ids outlive reset_keep_shm(), like a daemon restart.
std::map<int, bytes> &shm() { static std::map<int, bytes> m; return m; }
std::map<int, int> &shm_ids() { static std::map<int, int> m; return m; }

int scripted(const char *fn, int dflt)
{
    if (S().scripts.empty())
        return dflt;
    auto it = S().scripts.find(fn);
    if (it == S().scripts.end() || it->second.empty())
        return dflt;
    int r = it->second.front();
    it->second.pop_front();
    return r;
}

void record(const char *fn, std::initializer_list<int64_t> args = {}, std::string text = {}, bytes data = {})
{
    if (S().recording)
        S().calls.push_back({fn, args, std::move(text), std::move(data)});
    if (S().hooks.empty())
        return;
    auto it = S().hooks.find(fn);
    if (it != S().hooks.end() && it->second)
        std::function<void()>(it->second)(); // a copy: the hook may replace itself
}

// A scripted failure (negative result) leaves the fake's state as it was.
template <class F> int on_ok(int r, F &&f) { if (r >= 0) f(); return r; }

bytes to_bytes(const void *p, size_t n) { auto b = (const uint8_t *)p; return b ? bytes(b, b + n) : bytes{}; }

// Position among the created timers (their count for an unknown one), as calls record it.
int64_t timer_index(qz_pmpt_timer_t *t)
{
    auto &ts = S().timers;
    auto is_t = [&](auto &p) { return (qz_pmpt_timer_t *)p.get() == t; };
    return std::find_if(ts.begin(), ts.end(), is_t) - ts.begin();
}

timer *find_timer(qz_pmpt_timer_t *t)
{
    size_t i = (size_t)timer_index(t);
    return i < S().timers.size() ? S().timers[i].get() : nullptr;
}

template <class T> std::string join(const std::vector<T> &lines)
{
    std::string s;
    for (auto &l : lines)
        s += l.text;
    return s;
}

template <class T> bool has(const std::vector<T> &lines, const std::string &text)
{
    return std::any_of(lines.begin(), lines.end(), [&](auto &l) { return l.text == text; });
}

void deliver(std::map<uint32_t, qz_event_handler> &subs, uint32_t id, bytes &payload)
{
    if (auto it = subs.find(id); it != subs.end())
        it->second(id, (int)payload.size(), payload.data());
}

// An outgoing message is kept for the test only if its scripted result lets it go out.
int keep_sent(const char *fn, std::vector<sent> &out, uint32_t id, int len, const void *data)
{
    G g(mu);
    record(fn, {id, len}, {}, S().recording ? to_bytes(data, (size_t)len) : bytes{});
    return on_ok(scripted(fn, 0), [&] {
        if (S().recording)
            out.push_back({id, to_bytes(data, (size_t)len)});
    });
}

// A started service gets a thread that ends at once: the test drives everything by hand.
void *no_thread(void *) { return nullptr; }
int idle_thread(int r, pthread_t *t)
{
    return on_ok(r, [&] { if (t) pthread_create(t, nullptr, no_thread, nullptr); });
}

template <class T, class F> auto map_all(const std::vector<T> &v, F f)
{
    std::vector<decltype(f(v[0]))> out;
    for (auto &x : v)
        out.push_back(f(x));
    return out;
}

} // namespace

void reset_keep_shm()
{
    G g(mu);
    auto keep_db = std::move(S().db);
    S() = state{};
    S().db = std::move(keep_db);
}

void reset() { G g(mu); S() = state{}; shm().clear(); shm_ids().clear(); }

const std::vector<call> &calls() { return S().calls; }

std::vector<call> calls_of(const std::string &fn)
{
    G g(mu);
    std::vector<call> out;
    std::copy_if(S().calls.begin(), S().calls.end(), std::back_inserter(out),
                 [&](auto &c) { return c.fn == fn; });
    return out;
}

size_t count(const std::string &fn) { return calls_of(fn).size(); }

std::vector<std::string> call_names()
{
    G g(mu);
    return map_all(S().calls, [](auto &c) { return c.fn; });
}

void set_recording(bool on) { G g(mu); S().recording = on; }
void set_keep_text(bool on) { G g(mu); S().keep_text = on; }

void clear_calls()
{
    G g(mu);
    S().calls.clear();
    S().events_sent.clear(), S().capwap_sent.clear(), S().hc_sent.clear();
}

void script(const std::string &fn, int result, int times)
{
    G g(mu);
    S().scripts[fn].insert(S().scripts[fn].end(), (size_t)std::max(times, 0), result);
}

void on_call(const std::string &fn, std::function<void()> hook) { G g(mu); S().hooks[fn] = std::move(hook); }

void echo_logs(bool on) { S().echo_logs = on; }
const std::vector<log_line> &logs() { return S().logs; }
const std::vector<dbg_line> &dbgs() { return S().dbgs; }
std::string log_text() { return join(S().logs); }
std::string cli_text() { return S().cli; }
bool dbg_has(const std::string &text) { return has(S().dbgs, text); }
bool log_has(const std::string &text) { return has(S().logs, text); }

void clear_text() { G g(mu); S().logs.clear(); S().dbgs.clear(); S().cli.clear(); }

timer &timer_state(qz_pmpt_timer_t *t) { return *find_timer(t); }

void fire(qz_pmpt_timer_t *t)
{
    timer *tm = find_timer(t);
    tm->armed = false;
    tm->cb(t, tm->arg);
}

void set_radios(const std::vector<std::pair<std::string, int>> &radios) { S().radios = radios; }
radio &radio_state(int ifindex) { return S().radio_states[ifindex]; }
void set_mgt(const mac_t &mac, uint32_t ip) { S().mgt_mac = mac, S().mgt_ip = ip; }
void deliver_event(uint32_t id, bytes payload) { deliver(S().subs, id, payload); }
void deliver_kevent(uint32_t id, bytes payload) { deliver(S().ksubs, id, payload); }
const std::vector<sent> &events_sent() { return S().events_sent; }
const std::vector<sent> &capwap_sent() { return S().capwap_sent; }
const std::vector<sent> &hc_sent() { return S().hc_sent; }
bool hc_registered() { return S().hc_reg; }
const qz_hc_reg &hc_last_reg() { return S().last_reg; }
std::map<bytes, bytes> &db() { return S().db; }
void set_not_ready_polls(int n) { S().not_ready = n; }

int run_cmd(int cmd_id, bool negated, const bytes &block, int nth, uint16_t type)
{
    qz_cli_cmd cmd{};
    cmd.cmd_id = (uint32_t)cmd_id;
    cmd.negated = negated;
    qz_cli_ipc ipc{};
    ipc.type = type;
    // copy_n: an empty block may have no storage at all.
    std::copy_n(block.begin(), std::min(block.size(), sizeof(ipc.block)), ipc.block);
    for (auto &v : S().vectors)
        if (v.first == cmd_id && nth-- == 0)
            return v.second(&cmd, &ipc);
    return -9999;
}


std::vector<cfg_tlv> run_cfg_gen()
{
    std::vector<cfg_tlv> out; // the generator's context: qz_cli_agent_add_tlv appends here
    if (S().gen)
        S().gen(&out);
    return out;
}

} // namespace fake

using namespace fake;

// The platform calls below share this: take the lock, record the call under its own name
// (running any hook), and through RESULT return what the test scripted for it, else 0.
#define CALL(...) G g(mu); record(__func__ __VA_OPT__(, ) __VA_ARGS__)
#define RESULT scripted(__func__, 0)
#define SEND(list, id, len, data) keep_sent(__func__, S().list, id, len, data)
#define FORMAT(s, fmt) va_list ap; va_start(ap, fmt); auto s = qz_vformat_str(fmt, ap); va_end(ap)
// Text nobody keeps is not even formatted; the calling function returns at once.
#define DROP_TEXT(...)                                                                                    \
    if (!S().keep_text)                                                                                   \
        return __VA_ARGS__;


extern "C" {

uint32_t qz_lib_dbg;

// Interface names: only the fake's radio table exists.
unsigned int if_nametoindex(const char *name) __THROW
{
    G g(mu);
    for (auto &r : S().radios)
        if (name && r.first == name)
            return (unsigned)r.second;
    return 0;
}

char *if_indextoname(unsigned int ifindex, char *buf) __THROW
{
    G g(mu);
    for (auto &r : S().radios)
        if ((unsigned)r.second == ifindex)
            return snprintf(buf, IF_NAMESIZE, "%s", r.first.c_str()), buf;
    return nullptr;
}

int qz_daemonize(int a, int b) { CALL({a, b}); return RESULT; }
int qz_shm_destroy(int id, void *) { CALL({id}); return RESULT; }
int qz_pthread_setschedparam(pthread_t, int policy, int prio) { CALL({policy, prio}); return RESULT; }
int qz_pmpt_timer_init(int flags) { CALL({flags}); return RESULT; }
int qz_pm_init(int m) { CALL({m}); return RESULT; }
int qz_pm_setstate(int m, int s) { CALL({m, s}); return RESULT; }
int qz_pm_cleanup(int m) { CALL({m}); return RESULT; }
int qz_dcd_lib_init(void) { CALL(); return RESULT; }
int qz_dcd_lib_cleanup(void) { CALL(); return RESULT; }
int qz_event_cleanup(void) { CALL(); return 0; }
int qz_event_subscribe(uint32_t id, qz_event_handler h) { CALL({id}); S().subs[id] = h; return RESULT; }
int qz_kevent_subscribe(uint32_t id, qz_event_handler h) { CALL({id}); S().ksubs[id] = h; return RESULT; }
int qz_event_unsubscribe(uint32_t id) { CALL({id}); S().subs.erase(id); return 0; }
int qz_kevent_unsubscribe(uint32_t id) { CALL({id}); S().ksubs.erase(id); return 0; }
int qz_event_send(uint32_t id, int len, void *p) { return SEND(events_sent, id, len, p); }
int qz_hc3u_send(uint32_t dst, void *p, int len) { return SEND(hc_sent, dst, len, p); }
int qz_capwap_send_event(uint32_t id, int len, void *p) { return SEND(capwap_sent, id, len, p); }
int qz_hc_unregister(void) { CALL(); S().hc_reg = false; return RESULT; }
int qz_add_cli_vector_initializer(qz_cli_init_fn) { CALL(); return 0; }
int qz_reg_cmd_vector(int group, int cmd_id, qz_cli_cmd_fn fn)
{
    CALL({group, cmd_id});
    S().vectors.push_back({cmd_id, fn});
    return 0;
}
int qz_reg_cfg_generator(qz_cli_cfg_gen_fn fn, void *arg) { CALL({arg != nullptr}); S().gen = fn; return 0; }

int qz_register_debug_flag(const char *module, const char *name, uint32_t *, uint32_t mask)
{
    CALL({mask}, std::string(module) + "/" + name);
    return 0;
}

int qz_register_dbg_lib_flag(const char *module, const char *name, uint32_t *, uint32_t mask)
{
    CALL({mask}, std::string(module) + "/" + name);
    return 0;
}

void *qz_shm_create(int *id, int key, int size)
{
    CALL({key, size});
    if (RESULT < 0)
        return nullptr;
    auto &seg = shm()[key];
    seg.resize(std::max(seg.size(), (size_t)size)); // an existing segment keeps its bytes
    *id = shm_ids().try_emplace(key, 1000 + (int)shm_ids().size()).first->second;
    return seg.data();
}

int qz_pthread_create(pthread_t *thread, qz_thread_fn fn, void *arg, int a, int b, int c)
{
    {
        CALL({a, b, c});
        if (int r = RESULT)
            return r;
    }
    return pthread_create(thread, nullptr, fn, arg);
}

qz_pmpt_timer_t *qz_pmpt_timer_create(qz_pmpt_timer_cb cb, void *arg)
{
    CALL();
    if (RESULT < 0)
        return nullptr;
    S().timers.push_back(std::make_unique<timer>(timer{cb, arg, false, 0}));
    return (qz_pmpt_timer_t *)S().timers.back().get();
}

int qz_pmpt_timer_start(qz_pmpt_timer_t *t, unsigned int seconds)
{
    CALL({timer_index(t), seconds});
    timer *tm = find_timer(t);
    return on_ok(RESULT, [&] { if (tm) tm->armed = true, tm->period = seconds; });
}

int qz_pmpt_timer_stop(qz_pmpt_timer_t *t)
{
    CALL({timer_index(t)});
    if (timer *tm = find_timer(t))
        tm->armed = false;
    return RESULT;
}

int qz_pmpt_timer_delete(qz_pmpt_timer_t *t)
{
    CALL();
    if (timer *tm = find_timer(t))
        tm->armed = false;
    return RESULT;
}

int qz_pmpt_timer_time2fire(qz_pmpt_timer_t *t)
{
    CALL();
    timer *tm = find_timer(t);
    if (!tm || !tm->armed)
        return -1;
    return (int)tm->period;
}

int qz_event_init(int module, pthread_t *thread) { CALL({module}); return idle_thread(RESULT, thread); }

int qz_start_cli_agent(int module, int flags, pthread_t *thread)
{
    CALL({module, flags});
    return idle_thread(RESULT, thread);
}

const char *qz_eventid_to_name(uint32_t id) { return qz_evt_name(id); }

int qz_hc_register(qz_hc_reg *reg)
{
    CALL({reg->module_id, reg->caps, reg->version});
    return on_ok(RESULT, [&] { S().hc_reg = true, S().last_reg = *reg; });
}

int qz_cli_agent_add_tlv(void *ctx, int cmd_id, const void *block, int len, int tag)
{
    CALL({cmd_id, len, tag}, {}, to_bytes(block, (size_t)len));
    ((std::vector<cfg_tlv> *)ctx)->push_back({cmd_id, to_bytes(block, (size_t)len), tag});
    return 0;
}

int qz_cli_printf(qz_cli_cmd *, const char *fmt, ...)
{
    DROP_TEXT(0)
    FORMAT(s, fmt);
    G g(mu);
    S().cli += s;
    return (int)s.size();
}

qz_db_t *qz_db_open(const char *path)
{
    CALL({}, path ? path : "");
    return RESULT < 0 ? nullptr : (qz_db_t *)&S().db;
}

int qz_db_foreach(qz_db_t *db, qz_db_walk_cb cb)
{
    std::vector<bytes> keys;
    {
        CALL();
        for (auto &kv : S().db)
            keys.push_back(kv.first);
    }
    for (auto &k : keys) // unlocked: the callback may call back in
        cb(db, k.data(), (int)k.size());
    return 0;
}

int qz_db_fetch_bykey(qz_db_t *, const void *key, int klen, void *buf)
{
    CALL({klen}, {}, to_bytes(key, (size_t)klen));
    auto it = S().db.find(to_bytes(key, (size_t)klen));
    if (RESULT < 0 || it == S().db.end())
        return -1;
    memcpy(buf, it->second.data(), it->second.size());
    return 0;
}

int qz_db_store(qz_db_t *, const void *key, int klen, const void *val, int vlen)
{
    CALL({klen, vlen}, {}, to_bytes(key, (size_t)klen));
    return on_ok(RESULT, [&] { S().db[to_bytes(key, (size_t)klen)] = to_bytes(val, (size_t)vlen); });
}

int qz_db_delete(qz_db_t *, const void *key, int klen)
{
    CALL({klen}, {}, to_bytes(key, (size_t)klen));
    return on_ok(RESULT, [&] { S().db.erase(to_bytes(key, (size_t)klen)); });
}

int qz_sys_ready(void) { CALL(); return S().not_ready > 0 ? (S().not_ready--, 0) : 1; }

int qz_radio_count(void) { G g(mu); return scripted(__func__, (int)S().radios.size()); }

const char *qz_ifname_id2radio(int i)
{
    G g(mu);
    return i < 0 || i >= (int)S().radios.size() ? nullptr : S().radios[(size_t)i].first.c_str();
}

void qz_log(int category, int severity, const char *fmt, ...)
{
    DROP_TEXT()
    FORMAT(s, fmt);
    G g(mu);
    if (S().echo_logs)
        fputs(s.c_str(), stderr);
    S().logs.push_back({category, severity, s});
}

void __qz_dbg(const char *prefix, int line, const char *tag, const char *fmt, ...)
{
    DROP_TEXT()
    FORMAT(s, fmt);
    G g(mu);
    S().dbgs.push_back({tag ? tag : "", line, (prefix ? prefix : "") + s});
}

void __qz_err(const char *, int, const char *fmt, ...)
{
    FORMAT(s, fmt);
    fputs(s.c_str(), stderr); // death tests read it here
}

void qz_hexdump(const void *addr, int len)
{
    CALL({len}, {}, S().recording ? to_bytes(addr, len > 0 ? (size_t)len : 0) : bytes{});
    const uint8_t *b = (const uint8_t *)addr;
    if (!S().keep_text) {
        // Every byte is still read, so that a dump past the caller's bytes is caught.
        volatile uint8_t sum = 0;
        for (int i = 0; i < len; i++)
            sum = sum ^ b[i];
        return;
    }
    std::string s;
    for (int i = 0; i < len; i++) {
        char h[4];
        snprintf(h, sizeof(h), "%02x%c", b[i], (i % 16 == 15 || i == len - 1) ? '\n' : ' ');
        s += h;
    }
    S().dbgs.push_back({"hexdump", 0, s});
}

int qz_dcd_set_lta_track_enable(int ifindex, int enable)
{
    CALL({ifindex, enable});
    return on_ok(RESULT, [&] { S().radio_states[ifindex].track_enable = enable; });
}

int qz_dcd_set_lta_lmatch_enable(int ifindex, int value)
{
    CALL({ifindex, value});
    return on_ok(RESULT, [&] { S().radio_states[ifindex].lmatch = value; });
}

int qz_dcd_set_lta_trackobj(int ifindex, lta_trackobj *obj)
{
    CALL({ifindex, obj->is_oui, obj->del}, {}, to_bytes(obj, sizeof(*obj)));
    return on_ok(RESULT, [&] { S().radio_states[ifindex].trackobjs.push_back(*obj); });
}

int qz_dcd_get_lta_rpt_tbl(int ifindex, lta_rpt_entry *buf, int *count)
{
    CALL({ifindex, *count});
    if (int r = RESULT)
        return r;
    auto &rpt = S().radio_states[ifindex].rpt;
    *count = std::min((int)rpt.size(), *count);
    std::copy_n(rpt.begin(), std::max(*count, 0), buf);
    return 0;
}

int qz_dcd_get_radio_one_sta(int ifindex, const uint8_t *mac, void *buf, int buflen, int *len)
{
    CALL({ifindex, buflen}, {}, to_bytes(mac, 6));
    if (int r = RESULT)
        return r;
    mac_t m;
    memcpy(m.data(), mac, 6);
    auto &assoc = S().radio_states[ifindex].assoc;
    if (!assoc.count(m))
        return -1;
    memset(buf, 0, (size_t)buflen);
    memcpy((uint8_t *)buf + 2, &assoc[m], 2); // the station's frequency
    *len = buflen;
    return 0;
}

int qz_dcd_get_lta_stats(int ifindex, lta_stats *stats)
{
    CALL({ifindex});
    return on_ok(RESULT, [&] { *stats = S().radio_states[ifindex].stats; });
}

int qz_dcd_get_mac_byname(const char *ifname, uint8_t *mac)
{
    CALL({}, ifname ? ifname : "");
    return on_ok(RESULT, [&] { memcpy(mac, S().mgt_mac.data(), 6); });
}

int qz_dcd_get_addr_byname(const char *ifname, uint32_t *ip, uint32_t *mask)
{
    CALL({}, ifname ? ifname : "");
    return on_ok(RESULT, [&] { *ip = S().mgt_ip; if (mask) *mask = 0x00ffffff; });
}

} // extern "C"
