// Internal API of the Linux platform runtime, shared by its services. The daemon
// never includes this: it sees only the platform headers one folder up.
#pragma once
#include <stdarg.h>
#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "qz_dcd.h"
#include "rt_driver.h"

// ---- Configuration (TOML at $QZ_PLATFORM_CONFIG, else /etc/qz/platform.toml) ----

struct rt_config {
    std::string path;              // the file read, or "" when none existed
    std::string instance = "default";
    std::string runtime_dir;       // default /run/qz/<instance>
    bool foreground = false;
    bool log_syslog = true;
    std::string log_file;
    bool log_stderr = false;
    std::string mgt_interface = "mgt0";
    std::optional<std::array<uint8_t, 6>> mgt_mac;
    std::optional<uint32_t> mgt_ip; // network order
    std::string server_address;     // host:port, "" = channel down
    uint32_t server_queue_limit = 1 << 20;
    uint16_t nb_port = 7421;
    std::string nb_bind;            // IPv4 text; "" = the management IPv4
    std::vector<std::string> nb_peers;
    std::string nb_key_file;
    std::vector<rt_radio_cfg> radios;
    // Drivers' own tables ([sim]) by driver name, as their section_key made them.
    std::map<std::string, std::shared_ptr<void>> driver_conf;
    std::string owners_mode = "auto"; // "auto" or "external"
    uint32_t owners_peer_timeout_ms = 300;
    std::string store_dir; // "" = store paths as the daemon gives them
    std::string shm_dir;   // unused by System V; reserved
    std::map<std::string, int> lines; // dotted key ("radio[0].driver") -> its line
};

// A driver's own table, made on its first key; the defaults of T while it has none.
template <typename T> T &rt_driver_conf(rt_config &c, const std::string &driver)
{
    std::shared_ptr<void> &p = c.driver_conf[driver];
    if (!p)
        p = std::make_shared<T>();
    return *static_cast<T *>(p.get());
}
template <typename T> const T &rt_driver_conf(const rt_config &c, const std::string &driver)
{
    static const T defaults{};
    auto it = c.driver_conf.find(driver);
    return it == c.driver_conf.end() ? defaults : *static_cast<const T *>(it->second.get());
}

// Parses a TOML file. On error returns false and sets err to "file:line: key: what".
bool rt_config_parse(const std::string &path, rt_config &out, std::string &err);
// What parsing cannot see: every radio's driver exists in this build, and a configured
// site key is readable and not empty. Errors as rt_config_parse's.
bool rt_config_check(const rt_config &c, std::string &err);
// Reads a whole regular file of at most max bytes without ever blocking (a FIFO, a
// device or a larger file is refused); with nofollow a symbolic link is refused too.
// On failure why says what was wrong.
bool rt_read_regular(const std::string &path, size_t max, bool nofollow, std::string &out,
                     std::string &why);
// The site key of key_file: its bytes without trailing line ends, never empty.
bool rt_read_key(const std::string &path, std::string &key, std::string &why);
// The process's configuration, loaded on first use; a bad file ends the process with
// status 1 after printing the error.
const rt_config &rt_cfg();
// Tests only: replace the process configuration.
void rt_cfg_set(const rt_config &cfg);

// ---- Logging: the one formatter, to syslog / file / stderr as configured ----

// A runtime log line (the runtime's own errors and notices). severity: syslog level.
void rt_log(int severity, const char *fmt, ...);
void rt_vlog(int severity, const char *tag, const char *fmt, va_list ap);
// A line labelled with tag instead of the severity's name.
void rt_log_tagged(int severity, const char *tag, const char *fmt, ...);
// Same line at most once per `seconds` per key; returns whether it was written.
bool rt_log_ratelimited(const char *key, int seconds, int severity, const char *fmt, ...);
// The line written to the log file and stderr: "<local time with ms> <tag or severity>:
// <text>\n" (trailing newlines of text folded into one).
std::string rt_log_line(int severity, const char *tag, const std::string &text);
// Closes the log sinks; the next line opens them for the current configuration.
void rt_log_reopen();

// ---- Counters shown by the platform status command ----

std::atomic<uint64_t> &rt_counter(const char *name);
std::string rt_status_text(); // "name value\n" lines, sorted by name

// ---- Stopping: SIGTERM / SIGINT end the event loop and the CLI agent ----

bool rt_stopping();
void rt_request_stop();
// Blocks SIGTERM/SIGINT in the calling thread (call before creating threads) and
// starts the thread that waits for them. Idempotent.
void rt_signals_init();
// Wakes when a stop is requested; returns true if stopping, false on timeout.
bool rt_wait_stop(int timeout_ms);
// An eventfd that becomes readable once a stop is requested (for poll loops).
int rt_stop_fd();

// ---- Event library internals ----

// Queue a delivery for the event thread (payload copied).
void rt_event_post(uint32_t id, const void *payload, int len);
void rt_kevent_post(uint32_t id, const void *payload, int len);
// True while the queue holds its bound (1 MiB, counted with bookkeeping): sources
// outside the process then stop reading (server channel) or drop (events.sock).
bool rt_event_queue_full();
// Observers of qz_event_send (owner service, events.sock subscribers).
typedef void (*rt_event_tap_fn)(uint32_t id, const void *payload, int len);
void rt_event_add_send_tap(rt_event_tap_fn fn);

// ---- Services started by qz_event_init (each idempotent, each on its own thread) ----

void rt_srvchan_start(); // server channel (also started by the first send)
void rt_owner_start();   // owner service; also opens neighbour messaging

// ---- Debug categories registered through qz_register_debug_flag ----

// Switches a registered category of module on or off; negative when unknown.
int rt_debug_switch(const char *module, const char *category, bool on);
// "module category on|off\n" per registered category, in registration order.
std::string rt_debug_text();

// ---- Radios and drivers: rt_driver.h ----

// ---- Process ----

// Starts a thread with SIGTERM/SIGINT blocked and a name (ps, gdb). 0 or an errno.
int rt_thread_create(pthread_t *thread, void *(*fn)(void *), void *arg, const char *name);
// Tells the process that started a detached daemon that the start worked (once).
void rt_daemon_ready();
// The System V key that qz_shm_create uses for key in this instance.
int rt_shm_key(int key);
// Readiness parts: the driver library is open; the event thread is in its loop.
bool rt_dcd_opened();
bool rt_event_running();

// Path of a socket or file of this instance under runtime_dir (creates runtime_dir).
// A runtime_dir that another user could change ends the process with status 1.
std::string rt_runtime_path(const char *name);
// Whether dir is a real directory (no symbolic link) that only this user can change:
// owned by the effective uid and not writable by group or others. why says what is not.
bool rt_dir_private(const std::string &dir, std::string &why);

// ---- Life of the runtime's threads ----

// Records a service whose thread has just started; stop ends and joins that thread
// (idempotent, harmless when it never started). Also arms the exit hook.
void rt_life_started(const char *name, void (*stop)());
// Requests the stop, then stops the recorded services in reverse order of start. Run
// by the shutdown before the radios are released, and at process exit.
void rt_life_stop_all();
// Stop functions of services that others start.
void rt_timer_service_stop();
void rt_signals_stop();
void rt_owner_stop();
