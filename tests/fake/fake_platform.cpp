// The fake platform: every declared platform call, recorded and scripted.
#include "fake_platform.h"

#include <net/if.h>
#include <stdarg.h>
#include <string.h>

#include <deque>
#include <memory>
#include <mutex>

#include "qz_format.h"

namespace fake {
namespace {

std::recursive_mutex mu; // the daemon may call in from a thread of ltr_main's

struct state {
    std::vector<call> calls;
    std::map<std::string, std::deque<int>> scripts;
    std::vector<log_line> logs;
    std::vector<dbg_line> dbgs;
    std::string errs, cli;
    std::vector<std::unique_ptr<timer>> timers;
    std::map<qz_pmpt_timer_t *, int> t2f;
    std::vector<std::pair<std::string, int>> radios;
    std::map<int, radio> radio_states;
    mac_t mgt_mac{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint32_t mgt_ip = 0x0100000a; // 10.0.0.1 in network order on little-endian hosts
    std::map<uint32_t, qz_event_handler> subs, ksubs;
    std::vector<sent> events_sent, capwap_sent, hc_sent;
    bool hc_reg = false;
    qz_hc_reg last_reg{};
    std::map<bytes, bytes> db;
    bool db_open = false;
    std::vector<qz_cli_init_fn> inits;
    std::vector<std::pair<int, qz_cli_cmd_fn>> vectors;
    qz_cli_cfg_gen_fn gen = nullptr;
    std::vector<cfg_tlv> gen_out;
    std::vector<dbg_flag> flags;
    int not_ready = 0;
    std::map<std::string, std::function<void()>> hooks;
    bool echo_logs = false;
    bool recording = true;
};

state &S()
{
    static state s;
    return s;
}

// Shared segments outlive reset_keep_shm(), like a daemon restart.
std::map<int, bytes> &shm()
{
    static std::map<int, bytes> m;
    return m;
}
std::map<int, int> &shm_ids()
{
    static std::map<int, int> m;
    return m;
}

int scripted(const std::string &fn, int dflt)
{
    auto it = S().scripts.find(fn);
    if (it == S().scripts.end() || it->second.empty())
        return dflt;
    int r = it->second.front();
    it->second.pop_front();
    return r;
}

void record(const std::string &fn, std::vector<int64_t> args = {}, std::string text = {},
            bytes data = {})
{
    if (S().recording)
        S().calls.push_back({fn, std::move(args), std::move(text), std::move(data)});
    auto it = S().hooks.find(fn);
    if (it != S().hooks.end() && it->second) {
        auto hook = it->second; // the hook may replace itself
        hook();
    }
}

bytes to_bytes(const void *p, size_t n)
{
    const uint8_t *b = (const uint8_t *)p;
    return p ? bytes(b, b + n) : bytes{};
}

timer *find_timer(qz_pmpt_timer_t *t)
{
    for (auto &p : S().timers)
        if ((qz_pmpt_timer_t *)p.get() == t)
            return p.get();
    return nullptr;
}

void *no_thread(void *) { return nullptr; }

} // namespace

void reset_keep_shm()
{
    std::lock_guard g(mu);
    auto keep_db = std::move(S().db);
    S() = state{};
    S().db = std::move(keep_db);
}

void reset()
{
    std::lock_guard g(mu);
    S() = state{};
    shm().clear();
    shm_ids().clear();
}

const std::vector<call> &calls() { return S().calls; }

std::vector<call> calls_of(const std::string &fn)
{
    std::lock_guard g(mu);
    std::vector<call> out;
    for (auto &c : S().calls)
        if (c.fn == fn)
            out.push_back(c);
    return out;
}

size_t count(const std::string &fn) { return calls_of(fn).size(); }

std::vector<std::string> call_names()
{
    std::lock_guard g(mu);
    std::vector<std::string> out;
    for (auto &c : S().calls)
        out.push_back(c.fn);
    return out;
}

void set_recording(bool on)
{
    std::lock_guard g(mu);
    S().recording = on;
}

void clear_calls()
{
    std::lock_guard g(mu);
    S().calls.clear();
    S().events_sent.clear();
    S().capwap_sent.clear();
    S().hc_sent.clear();
}

void script(const std::string &fn, int result, int times)
{
    std::lock_guard g(mu);
    for (int i = 0; i < times; i++)
        S().scripts[fn].push_back(result);
}

void on_call(const std::string &fn, std::function<void()> hook)
{
    std::lock_guard g(mu);
    S().hooks[fn] = std::move(hook);
}

void echo_logs(bool on) { S().echo_logs = on; }

const std::vector<log_line> &logs() { return S().logs; }
const std::vector<dbg_line> &dbgs() { return S().dbgs; }

std::string log_text()
{
    std::string s;
    for (auto &l : S().logs)
        s += l.text;
    return s;
}

std::string dbg_text()
{
    std::string s;
    for (auto &l : S().dbgs)
        s += l.text;
    return s;
}

std::string err_text() { return S().errs; }
std::string cli_text() { return S().cli; }

void clear_text()
{
    std::lock_guard g(mu);
    S().logs.clear();
    S().dbgs.clear();
    S().errs.clear();
    S().cli.clear();
}

bool dbg_has(const std::string &text)
{
    for (auto &l : S().dbgs)
        if (l.text == text)
            return true;
    return false;
}

bool log_has(const std::string &text)
{
    for (auto &l : S().logs)
        if (l.text == text)
            return true;
    return false;
}

std::vector<qz_pmpt_timer_t *> timers()
{
    std::vector<qz_pmpt_timer_t *> out;
    for (auto &p : S().timers)
        out.push_back((qz_pmpt_timer_t *)p.get());
    return out;
}

timer &timer_state(qz_pmpt_timer_t *t) { return *find_timer(t); }

void fire(qz_pmpt_timer_t *t)
{
    timer *tm = find_timer(t);
    tm->armed = false;
    tm->cb(t, tm->arg);
}

void set_time2fire(qz_pmpt_timer_t *t, int seconds) { S().t2f[t] = seconds; }

void set_radios(const std::vector<std::pair<std::string, int>> &radios) { S().radios = radios; }
radio &radio_state(int ifindex) { return S().radio_states[ifindex]; }

void set_mgt(const mac_t &mac, uint32_t ip)
{
    S().mgt_mac = mac;
    S().mgt_ip = ip;
}

void deliver_event(uint32_t id, bytes payload)
{
    auto it = S().subs.find(id);
    if (it != S().subs.end())
        it->second(id, (int)payload.size(), payload.data());
}

void deliver_kevent(uint32_t id, bytes payload)
{
    auto it = S().ksubs.find(id);
    if (it != S().ksubs.end())
        it->second(id, (int)payload.size(), payload.data());
}

bool subscribed(uint32_t id) { return S().subs.count(id) != 0; }
bool ksubscribed(uint32_t id) { return S().ksubs.count(id) != 0; }
const std::vector<sent> &events_sent() { return S().events_sent; }
const std::vector<sent> &capwap_sent() { return S().capwap_sent; }
const std::vector<sent> &hc_sent() { return S().hc_sent; }
bool hc_registered() { return S().hc_reg; }
const qz_hc_reg &hc_last_reg() { return S().last_reg; }

int deliver_nbr(bytes data)
{
    if (!S().hc_reg || !S().last_reg.recv)
        return -1;
    return S().last_reg.recv(S().last_reg.priv, (int)data.size(), data.data());
}

bytes shm_bytes(int key) { return shm()[key]; }
std::map<bytes, bytes> &db() { return S().db; }
bool db_open() { return S().db_open; }

int run_cli_initializers()
{
    for (auto fn : S().inits)
        fn();
    return 0;
}

int run_cmd(int cmd_id, bool negated, const bytes &block, int nth, uint16_t type)
{
    qz_cli_cmd cmd{};
    cmd.cmd_id = (uint32_t)cmd_id;
    cmd.negated = negated;
    qz_cli_ipc ipc{};
    ipc.type = type;
    memcpy(ipc.block, block.data(), block.size() < sizeof(ipc.block) ? block.size() : sizeof(ipc.block));
    int seen = 0;
    for (auto &v : S().vectors)
        if (v.first == cmd_id && seen++ == nth)
            return v.second(&cmd, &ipc);
    return -9999;
}

std::vector<int> cmd_ids()
{
    std::vector<int> out;
    for (auto &v : S().vectors)
        out.push_back(v.first);
    return out;
}

std::vector<cfg_tlv> run_cfg_gen()
{
    S().gen_out.clear();
    if (S().gen)
        S().gen(&S().gen_out);
    return S().gen_out;
}

const std::vector<dbg_flag> &dbg_flags() { return S().flags; }

bool set_debug(const std::string &module, const std::string &name, bool on)
{
    for (auto &f : S().flags)
        if (f.module == module && f.name == name) {
            if (on)
                *f.word |= f.mask;
            else
                *f.word &= ~f.mask;
            return true;
        }
    return false;
}

void set_not_ready_polls(int n) { S().not_ready = n; }

} // namespace fake

using namespace fake;
using G = std::lock_guard<std::recursive_mutex>;

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
        if ((unsigned)r.second == ifindex) {
            snprintf(buf, IF_NAMESIZE, "%s", r.first.c_str());
            return buf;
        }
    return nullptr;
}

int qz_daemonize(int a, int b)
{
    G g(mu);
    record("qz_daemonize", {a, b});
    return scripted("qz_daemonize", 0);
}

void *qz_shm_create(int *id, int key, int size)
{
    G g(mu);
    record("qz_shm_create", {key, size});
    if (scripted("qz_shm_create", 0) < 0)
        return nullptr;
    auto &seg = shm()[key];
    if (seg.size() < (size_t)size)
        seg.resize((size_t)size);
    if (!shm_ids().count(key))
        shm_ids()[key] = 1000 + (int)shm_ids().size();
    *id = shm_ids()[key];
    return seg.data();
}

int qz_shm_destroy(int id, void *)
{
    G g(mu);
    record("qz_shm_destroy", {id});
    return scripted("qz_shm_destroy", 0);
}

int qz_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = qz_vformat(buf, size, fmt, ap);
    va_end(ap);
    return n;
}

int qz_pthread_create(pthread_t *thread, qz_thread_fn fn, void *arg, int a, int b, int c)
{
    {
        G g(mu);
        record("qz_pthread_create", {a, b, c});
        int r = scripted("qz_pthread_create", 0);
        if (r != 0)
            return r;
    }
    return pthread_create(thread, nullptr, fn, arg);
}

int qz_pthread_setschedparam(pthread_t, int policy, int prio)
{
    G g(mu);
    record("qz_pthread_setschedparam", {policy, prio});
    return scripted("qz_pthread_setschedparam", 0);
}

int qz_pmpt_timer_init(int flags)
{
    G g(mu);
    record("qz_pmpt_timer_init", {flags});
    return scripted("qz_pmpt_timer_init", 0);
}

qz_pmpt_timer_t *qz_pmpt_timer_create(qz_pmpt_timer_cb cb, void *arg)
{
    G g(mu);
    record("qz_pmpt_timer_create");
    if (scripted("qz_pmpt_timer_create", 0) < 0)
        return nullptr;
    S().timers.push_back(std::make_unique<timer>(timer{cb, arg, false, 0, 0, false}));
    return (qz_pmpt_timer_t *)S().timers.back().get();
}

int qz_pmpt_timer_start(qz_pmpt_timer_t *t, unsigned int seconds)
{
    G g(mu);
    timer *tm = find_timer(t);
    int idx = 0;
    for (auto &p : S().timers) {
        if (p.get() == tm)
            break;
        idx++;
    }
    record("qz_pmpt_timer_start", {idx, seconds});
    int r = scripted("qz_pmpt_timer_start", 0);
    if (tm && r >= 0) {
        tm->armed = true;
        tm->period = seconds;
        tm->starts++;
    }
    return r;
}

int qz_pmpt_timer_stop(qz_pmpt_timer_t *t)
{
    G g(mu);
    timer *tm = find_timer(t);
    int idx = 0;
    for (auto &p : S().timers) {
        if (p.get() == tm)
            break;
        idx++;
    }
    record("qz_pmpt_timer_stop", {idx});
    if (tm)
        tm->armed = false;
    return scripted("qz_pmpt_timer_stop", 0);
}

int qz_pmpt_timer_delete(qz_pmpt_timer_t *t)
{
    G g(mu);
    record("qz_pmpt_timer_delete");
    if (timer *tm = find_timer(t)) {
        tm->deleted = true;
        tm->armed = false;
    }
    return scripted("qz_pmpt_timer_delete", 0);
}

int qz_pmpt_timer_time2fire(qz_pmpt_timer_t *t)
{
    G g(mu);
    record("qz_pmpt_timer_time2fire");
    timer *tm = find_timer(t);
    if (!tm || !tm->armed)
        return -1;
    auto it = S().t2f.find(t);
    return it != S().t2f.end() ? it->second : (int)tm->period;
}

int qz_event_init(int module, pthread_t *thread)
{
    G g(mu);
    record("qz_event_init", {module});
    int r = scripted("qz_event_init", 0);
    if (r >= 0 && thread)
        pthread_create(thread, nullptr, no_thread, nullptr);
    return r;
}

int qz_event_subscribe(uint32_t id, qz_event_handler h)
{
    G g(mu);
    record("qz_event_subscribe", {id});
    S().subs[id] = h;
    return scripted("qz_event_subscribe", 0);
}

int qz_kevent_subscribe(uint32_t id, qz_event_handler h)
{
    G g(mu);
    record("qz_kevent_subscribe", {id});
    S().ksubs[id] = h;
    return scripted("qz_kevent_subscribe", 0);
}

int qz_event_unsubscribe(uint32_t id)
{
    G g(mu);
    record("qz_event_unsubscribe", {id});
    S().subs.erase(id);
    return 0;
}

int qz_kevent_unsubscribe(uint32_t id)
{
    G g(mu);
    record("qz_kevent_unsubscribe", {id});
    S().ksubs.erase(id);
    return 0;
}

int qz_event_cleanup(void)
{
    G g(mu);
    record("qz_event_cleanup");
    return 0;
}

int qz_event_send(uint32_t id, int len, void *payload)
{
    G g(mu);
    record("qz_event_send", {id, len}, {}, to_bytes(payload, (size_t)len));
    int r = scripted("qz_event_send", 0);
    if (r >= 0 && S().recording)
        S().events_sent.push_back({id, to_bytes(payload, (size_t)len)});
    return r;
}

const char *qz_eventid_to_name(uint32_t id)
{
    switch (id) {
    case 156: return "STA_OWNER_QUERY";
    case 157: return "STA_OWNER_REPLY";
    case 164: return "LOC_SRV_MSG_IN";
    case 165: return "LOC_SRV_MSG_OUT";
    case 280: return "MGT_IP_CHANGE";
    default: return "UNKNOWN";
    }
}

int qz_hc_register(qz_hc_reg *reg)
{
    G g(mu);
    record("qz_hc_register", {reg->module_id, reg->caps, reg->version});
    int r = scripted("qz_hc_register", 0);
    if (r >= 0) {
        S().hc_reg = true;
        S().last_reg = *reg;
    }
    return r;
}

int qz_hc_unregister(void)
{
    G g(mu);
    record("qz_hc_unregister");
    S().hc_reg = false;
    return scripted("qz_hc_unregister", 0);
}

int qz_hc3u_send(uint32_t dst, void *msg, int len)
{
    G g(mu);
    record("qz_hc3u_send", {dst, len}, {}, to_bytes(msg, (size_t)len));
    int r = scripted("qz_hc3u_send", 0);
    if (r >= 0 && S().recording)
        S().hc_sent.push_back({dst, to_bytes(msg, (size_t)len)});
    return r;
}

int qz_capwap_send_event(uint32_t id, int len, void *payload)
{
    G g(mu);
    record("qz_capwap_send_event", {id, len}, {}, to_bytes(payload, (size_t)len));
    int r = scripted("qz_capwap_send_event", 0);
    if (r >= 0 && S().recording)
        S().capwap_sent.push_back({id, to_bytes(payload, (size_t)len)});
    return r;
}

int qz_add_cli_vector_initializer(qz_cli_init_fn fn)
{
    G g(mu);
    record("qz_add_cli_vector_initializer");
    S().inits.push_back(fn);
    return 0;
}

int qz_start_cli_agent(int module, int flags, pthread_t *thread)
{
    G g(mu);
    record("qz_start_cli_agent", {module, flags});
    int r = scripted("qz_start_cli_agent", 0);
    if (r >= 0 && thread)
        pthread_create(thread, nullptr, no_thread, nullptr);
    return r;
}

int qz_reg_cmd_vector(int group, int cmd_id, qz_cli_cmd_fn fn)
{
    G g(mu);
    record("qz_reg_cmd_vector", {group, cmd_id});
    S().vectors.push_back({cmd_id, fn});
    return 0;
}

int qz_reg_cfg_generator(qz_cli_cfg_gen_fn fn, void *arg)
{
    G g(mu);
    record("qz_reg_cfg_generator", {arg != nullptr});
    S().gen = fn;
    return 0;
}

int qz_cli_agent_add_tlv(void *ctx, int cmd_id, const void *block, int len, int tag)
{
    G g(mu);
    record("qz_cli_agent_add_tlv", {cmd_id, len, tag}, {}, to_bytes(block, (size_t)len));
    ((std::vector<cfg_tlv> *)ctx)->push_back({cmd_id, to_bytes(block, (size_t)len), tag});
    return 0;
}

int qz_cli_printf(qz_cli_cmd *, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = qz_vformat_str(fmt, ap);
    va_end(ap);
    G g(mu);
    S().cli += s;
    return (int)s.size();
}

int qz_db_foreach(qz_db_t *, qz_db_walk_cb cb);

qz_db_t *qz_db_open(const char *path)
{
    G g(mu);
    record("qz_db_open", {}, path ? path : "");
    if (scripted("qz_db_open", 0) < 0)
        return nullptr;
    S().db_open = true;
    return (qz_db_t *)&S().db;
}

int qz_db_foreach(qz_db_t *db, qz_db_walk_cb cb)
{
    std::vector<bytes> keys;
    {
        G g(mu);
        record("qz_db_foreach");
        for (auto &kv : S().db)
            keys.push_back(kv.first);
    }
    for (auto &k : keys)
        cb(db, k.data(), (int)k.size());
    return 0;
}

int qz_db_fetch_bykey(qz_db_t *, const void *key, int klen, void *buf)
{
    G g(mu);
    record("qz_db_fetch_bykey", {klen}, {}, to_bytes(key, (size_t)klen));
    if (scripted("qz_db_fetch_bykey", 0) < 0)
        return -1;
    auto it = S().db.find(to_bytes(key, (size_t)klen));
    if (it == S().db.end())
        return -1;
    memcpy(buf, it->second.data(), it->second.size());
    return 0;
}

int qz_db_store(qz_db_t *, const void *key, int klen, const void *val, int vlen)
{
    G g(mu);
    record("qz_db_store", {klen, vlen}, {}, to_bytes(key, (size_t)klen));
    int r = scripted("qz_db_store", 0);
    if (r >= 0)
        S().db[to_bytes(key, (size_t)klen)] = to_bytes(val, (size_t)vlen);
    return r;
}

int qz_db_delete(qz_db_t *, const void *key, int klen)
{
    G g(mu);
    record("qz_db_delete", {klen}, {}, to_bytes(key, (size_t)klen));
    int r = scripted("qz_db_delete", 0);
    if (r >= 0)
        S().db.erase(to_bytes(key, (size_t)klen));
    return r;
}

int qz_pm_init(int m)
{
    G g(mu);
    record("qz_pm_init", {m});
    return scripted("qz_pm_init", 0);
}

int qz_pm_setstate(int m, int s)
{
    G g(mu);
    record("qz_pm_setstate", {m, s});
    return scripted("qz_pm_setstate", 0);
}

int qz_pm_cleanup(int m)
{
    G g(mu);
    record("qz_pm_cleanup", {m});
    return scripted("qz_pm_cleanup", 0);
}

int qz_sys_ready(void)
{
    G g(mu);
    record("qz_sys_ready");
    if (S().not_ready > 0) {
        S().not_ready--;
        return 0;
    }
    return 1;
}

int qz_radio_count(void)
{
    G g(mu);
    return scripted("qz_radio_count", (int)S().radios.size());
}

const char *qz_ifname_id2radio(int i)
{
    G g(mu);
    if (i < 0 || i >= (int)S().radios.size())
        return nullptr;
    return S().radios[(size_t)i].first.c_str();
}

void qz_log(int category, int severity, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = qz_vformat_str(fmt, ap);
    va_end(ap);
    G g(mu);
    if (S().echo_logs)
        fputs(s.c_str(), stderr);
    S().logs.push_back({category, severity, s});
}

void __qz_dbg(const char *prefix, int line, const char *tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = std::string(prefix ? prefix : "") + qz_vformat_str(fmt, ap);
    va_end(ap);
    G g(mu);
    S().dbgs.push_back({tag ? tag : "", line, s});
}

void __qz_err(const char *, int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = qz_vformat_str(fmt, ap);
    va_end(ap);
    fputs(s.c_str(), stderr); // death tests read it here
    G g(mu);
    S().errs += s;
}

void qz_hexdump(const void *addr, int len)
{
    G g(mu);
    record("qz_hexdump", {len}, {}, to_bytes(addr, len > 0 ? (size_t)len : 0));
    std::string s;
    const uint8_t *b = (const uint8_t *)addr;
    for (int i = 0; i < len; i++) {
        char h[4];
        snprintf(h, sizeof(h), "%02x", b[i]);
        s += h;
        s += (i % 16 == 15 || i == len - 1) ? '\n' : ' ';
    }
    S().dbgs.push_back({"hexdump", 0, s});
}

int qz_register_debug_flag(const char *module, const char *name, uint32_t *word, uint32_t mask)
{
    G g(mu);
    record("qz_register_debug_flag", {mask}, std::string(module) + "/" + name);
    S().flags.push_back({module, name, word, mask, false});
    return 0;
}

int qz_register_dbg_lib_flag(const char *module, const char *name, uint32_t *word, uint32_t mask)
{
    G g(mu);
    record("qz_register_dbg_lib_flag", {mask}, std::string(module) + "/" + name);
    S().flags.push_back({module, name, word, mask, true});
    return 0;
}

int qz_dcd_lib_init(void)
{
    G g(mu);
    record("qz_dcd_lib_init");
    return scripted("qz_dcd_lib_init", 0);
}

int qz_dcd_lib_cleanup(void)
{
    G g(mu);
    record("qz_dcd_lib_cleanup");
    return scripted("qz_dcd_lib_cleanup", 0);
}

int qz_dcd_set_lta_track_enable(int ifindex, int enable)
{
    G g(mu);
    record("qz_dcd_set_lta_track_enable", {ifindex, enable});
    int r = scripted("qz_dcd_set_lta_track_enable", 0);
    if (r >= 0)
        S().radio_states[ifindex].track_enable = enable;
    return r;
}

int qz_dcd_set_lta_lmatch_enable(int ifindex, int value)
{
    G g(mu);
    record("qz_dcd_set_lta_lmatch_enable", {ifindex, value});
    int r = scripted("qz_dcd_set_lta_lmatch_enable", 0);
    if (r >= 0)
        S().radio_states[ifindex].lmatch = value;
    return r;
}

int qz_dcd_set_lta_trackobj(int ifindex, lta_trackobj *obj)
{
    G g(mu);
    record("qz_dcd_set_lta_trackobj", {ifindex, obj->is_oui, obj->del}, {}, to_bytes(obj, sizeof(*obj)));
    int r = scripted("qz_dcd_set_lta_trackobj", 0);
    if (r >= 0)
        S().radio_states[ifindex].trackobjs.push_back(*obj);
    return r;
}

int qz_dcd_get_lta_rpt_tbl(int ifindex, lta_rpt_entry *buf, int *count)
{
    G g(mu);
    record("qz_dcd_get_lta_rpt_tbl", {ifindex, *count});
    int r = scripted("qz_dcd_get_lta_rpt_tbl", 0);
    if (r != 0)
        return r;
    auto &rpt = S().radio_states[ifindex].rpt;
    int n = (int)rpt.size() < *count ? (int)rpt.size() : *count;
    if (n > 0)
        memcpy(buf, rpt.data(), sizeof(lta_rpt_entry) * (size_t)n);
    *count = n;
    return 0;
}

int qz_dcd_get_radio_one_sta(int ifindex, const uint8_t *mac, void *buf, int buflen, int *len)
{
    G g(mu);
    record("qz_dcd_get_radio_one_sta", {ifindex, buflen}, {}, to_bytes(mac, 6));
    int r = scripted("qz_dcd_get_radio_one_sta", 0);
    if (r != 0)
        return r;
    auto &assoc = S().radio_states[ifindex].assoc;
    mac_t m;
    memcpy(m.data(), mac, 6);
    auto it = assoc.find(m);
    if (it == assoc.end())
        return -1;
    memset(buf, 0, (size_t)buflen);
    memcpy((uint8_t *)buf + 2, &it->second, 2);
    *len = buflen;
    return 0;
}

int qz_dcd_get_lta_stats(int ifindex, lta_stats *stats)
{
    G g(mu);
    record("qz_dcd_get_lta_stats", {ifindex});
    int r = scripted("qz_dcd_get_lta_stats", 0);
    if (r >= 0)
        *stats = S().radio_states[ifindex].stats;
    return r;
}

int qz_dcd_get_mac_byname(const char *ifname, uint8_t *mac)
{
    G g(mu);
    record("qz_dcd_get_mac_byname", {}, ifname ? ifname : "");
    int r = scripted("qz_dcd_get_mac_byname", 0);
    if (r >= 0)
        memcpy(mac, S().mgt_mac.data(), 6);
    return r;
}

int qz_dcd_get_addr_byname(const char *ifname, uint32_t *ip, uint32_t *mask)
{
    G g(mu);
    record("qz_dcd_get_addr_byname", {}, ifname ? ifname : "");
    int r = scripted("qz_dcd_get_addr_byname", 0);
    if (r >= 0) {
        *ip = S().mgt_ip;
        if (mask)
            *mask = 0x00ffffff;
    }
    return r;
}

} // extern "C"
