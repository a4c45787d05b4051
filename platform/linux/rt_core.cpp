// The runtime's core: its own log lines, status counters, the stop request with the
// signal thread, and the paths of this instance's sockets.
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_process.h"
#include "rt_stop.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "qz_format.h"
#include "rt_svcmgr.h"

// ---- Logging ----

namespace {

std::mutex g_log_mu; // guards the sinks below, not the writes
int g_log_fd = -1;
bool g_log_open; // sinks opened for the current configuration
std::string g_syslog_ident;
std::atomic<bool> g_started;
bool g_journal; // syslog lines go to the journal, with fields
thread_local rt_log_about *g_about;

// Under systemd stderr may be the journal already (JOURNAL_STREAM names it): a copy of
// a start-up error there would show twice.
bool stderr_is_journal()
{
    static const bool is = [] {
        const char *js = getenv("JOURNAL_STREAM");
        struct stat st;
        unsigned long long dev, ino;
        return js && sscanf(js, "%llu:%llu", &dev, &ino) == 2 && fstat(STDERR_FILENO, &st) == 0 &&
               st.st_dev == dev && st.st_ino == ino;
    }();
    return is;
}

const char *severity_name(int sev)
{
    static const char *const names[] = {"emerg", "alert", "crit", "err",
                                        "warning", "notice", "info", "debug"};
    return sev >= 0 && sev <= 7 ? names[sev] : "log";
}

void open_sinks_locked(const rt_config &c)
{
    if (g_log_open)
        return;
    g_log_open = true;
    if (!c.log_file.empty()) {
        g_log_fd = open(c.log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
        if (g_log_fd < 0)
            fprintf(stderr, "log file %s: %s\n", c.log_file.c_str(), strerror(errno));
    }
    if (c.log_syslog) {
        g_syslog_ident = program_invocation_short_name;
        if (c.instance != "default")
            g_syslog_ident += "/" + c.instance;
#ifdef LTR_HAVE_SYSTEMD
        g_journal = rt_journal_present();
#endif
        // Opened with the journal too: a line the journal refuses still goes here.
        openlog(g_syslog_ident.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
    }
}

#ifdef LTR_HAVE_SYSTEMD
// One entry; on failure (journald gone) the line still reaches syslog.
bool journal_send(int severity, const char *tag, const std::string &text)
{
    return rt_journal_send(rt_journal_fields(severity, tag, text, g_syslog_ident));
}
#endif

void write_all(int fd, const std::string &s)
{
    const char *p = s.data();
    size_t n = s.size();
    while (n) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return;
        p += w;
        n -= (size_t)w;
    }
}

} // namespace

std::string rt_log_line(int severity, const char *tag, const std::string &text)
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm t;
    localtime_r(&ts.tv_sec, &t);
    char stamp[40];
    size_t n = strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &t);
    snprintf(stamp + n, sizeof stamp - n, ".%03ld", ts.tv_nsec / 1000000);
    std::string body = text;
    while (!body.empty() && body.back() == '\n')
        body.pop_back();
    std::string line = stamp;
    line += ' ';
    line += tag && tag[0] ? tag : severity_name(severity);
    line += ": ";
    line += body;
    line += '\n';
    return line;
}

void rt_vlog(int severity, const char *tag, const char *fmt, va_list ap)
{
    const rt_config &c = rt_cfg();
    std::string text = qz_vformat_str(fmt, ap);
    int fd;
    bool journal;
    {
        std::lock_guard g(g_log_mu);
        open_sinks_locked(c);
        fd = g_log_fd;
        journal = g_journal;
    }
    bool to_stderr = c.log_stderr || (severity <= LOG_ERR && !g_started.load() && !stderr_is_journal());
    if (fd >= 0 || to_stderr) {
        std::string line = rt_log_line(severity, tag, text);
        // One write per line, so that lines of concurrent threads never interleave.
        if (fd >= 0)
            write_all(fd, line);
        if (to_stderr)
            write_all(STDERR_FILENO, line);
    }
    if (c.log_syslog) {
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
#ifdef LTR_HAVE_SYSTEMD
        if (journal && journal_send(severity, tag, text))
            return;
#else
        (void)journal;
#endif
        int prio = severity < 0 ? LOG_ERR : severity > 7 ? LOG_DEBUG : severity;
        if (tag && tag[0])
            syslog(prio, "%s: %s", tag, text.c_str());
        else
            syslog(prio, "%s", text.c_str());
    }
}

void rt_log(int severity, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    rt_vlog(severity, nullptr, fmt, ap);
    va_end(ap);
}

void rt_log_tagged(int severity, const char *tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    rt_vlog(severity, tag, fmt, ap);
    va_end(ap);
}

void rt_log_started() { g_started = true; }

void rt_log_reopen()
{
    std::lock_guard g(g_log_mu);
    if (g_log_fd >= 0)
        close(g_log_fd);
    g_log_fd = -1;
    g_log_open = false;
    g_journal = false;
}

rt_log_about::rt_log_about(const char *field, const char *value) : field_(field), outer_(g_about)
{
    snprintf(value_, sizeof value_, "%s", value ? value : "");
    g_about = this;
}

rt_log_about::rt_log_about(const char *field, uint32_t ipv4)
    : field_(field), ipv4_(ipv4), unformatted_(true), outer_(g_about)
{
    g_about = this;
}

const char *rt_log_about::value() const
{
    if (unformatted_) {
        unformatted_ = false;
        in_addr a{ipv4_};
        if (!inet_ntop(AF_INET, &a, value_, sizeof value_))
            value_[0] = 0;
    }
    return value_;
}

rt_log_about::~rt_log_about() { g_about = outer_; }

bool rt_journal_present(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISSOCK(st.st_mode);
}

std::vector<std::string> rt_journal_fields(int severity, const char *tag, const std::string &text,
                                           const std::string &ident)
{
    int prio = severity < 0 ? LOG_ERR : severity > 7 ? LOG_DEBUG : severity;
    std::string body = text;
    while (!body.empty() && body.back() == '\n')
        body.pop_back();
    bool tagged = tag && tag[0];
    std::vector<std::string> f;
    f.push_back("MESSAGE=" + (tagged ? std::string(tag) + ": " + body : body));
    f.push_back("PRIORITY=" + std::to_string(prio));
    f.push_back("SYSLOG_FACILITY=" + std::to_string(LOG_DAEMON >> 3));
    f.push_back("SYSLOG_IDENTIFIER=" + ident);
    if (tagged)
        f.push_back(std::string("LTR_TAG=") + tag);
    if (g_about && g_about->field() && g_about->value()[0])
        f.push_back(std::string(g_about->field()) + "=" + g_about->value());
    return f;
}

bool rt_log_ratelimited(const char *key, int seconds, int severity, const char *fmt, ...)
{
    struct slot {
        std::chrono::steady_clock::time_point last;
        uint64_t suppressed = 0;
        bool used = false;
    };
    static std::mutex mu;
    static std::map<std::string, slot> slots;
    uint64_t suppressed;
    {
        std::lock_guard g(mu);
        slot &s = slots[key];
        auto now = std::chrono::steady_clock::now();
        if (s.used && now - s.last < std::chrono::seconds(seconds)) {
            s.suppressed++;
            return false;
        }
        s.used = true;
        s.last = now;
        suppressed = s.suppressed;
        s.suppressed = 0;
    }
    va_list ap;
    va_start(ap, fmt);
    std::string text = qz_vformat_str(fmt, ap);
    va_end(ap);
    if (suppressed)
        rt_log(severity, "%s (%llu similar lines suppressed)", text.c_str(),
               (unsigned long long)suppressed);
    else
        rt_log(severity, "%s", text.c_str());
    return true;
}

// ---- Counters ----

namespace {
std::mutex g_counter_mu;
std::map<std::string, std::atomic<uint64_t>> g_counters; // nodes never move
} // namespace

std::atomic<uint64_t> &rt_counter(const char *name)
{
    std::lock_guard g(g_counter_mu);
    return g_counters[name];
}

std::string rt_status_text()
{
    std::lock_guard g(g_counter_mu);
    std::string out;
    for (auto &[name, v] : g_counters)
        out += name + " " + std::to_string(v.load()) + "\n";
    return out;
}

// ---- Stopping ----

namespace {
std::atomic<bool> g_stop;
std::mutex g_stop_mu;
std::condition_variable g_stop_cv;
int g_stop_fd = -1;
std::once_flag g_stop_fd_once;
std::once_flag g_signals_once;
pthread_t g_signal_thread;
std::atomic<bool> g_signals_quit;

void *signal_thread(void *arg)
{
    sigset_t *set = (sigset_t *)arg;
    for (int count = 0;; count++) {
        int sig;
        if (sigwait(set, &sig) != 0)
            continue;
        if (g_signals_quit)
            break;
        if (count == 0) {
            rt_log(LOG_NOTICE, "SIG%s received, stopping", sigabbrev_np(sig));
            rt_request_stop();
        } else {
            // A second signal while the shutdown hangs: leave at once.
            rt_log(LOG_WARNING, "SIG%s received again, exiting now", sigabbrev_np(sig));
            _exit(1);
        }
    }
    return nullptr;
}
} // namespace

bool rt_stopping() { return g_stop.load(); }

int rt_stop_fd()
{
    std::call_once(g_stop_fd_once, [] {
        g_stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (g_stop_fd >= 0 && g_stop.load())
            eventfd_write(g_stop_fd, 1);
    });
    return g_stop_fd;
}

void rt_request_stop()
{
    int fd = rt_stop_fd();
    {
        // The fd first: whoever sees the flag also finds the fd readable.
        std::lock_guard g(g_stop_mu);
        if (g_stop.load())
            return;
        if (fd >= 0)
            eventfd_write(fd, 1);
        g_stop = true;
    }
    g_stop_cv.notify_all();
}

bool rt_wait_stop(int timeout_ms)
{
    std::unique_lock g(g_stop_mu);
    return g_stop_cv.wait_for(g, std::chrono::milliseconds(timeout_ms),
                              [] { return g_stop.load(); });
}

void rt_signals_init()
{
    std::call_once(g_signals_once, [] {
        static sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        rt_stop_fd();
        if (rt_thread_create(&g_signal_thread, signal_thread, &set, "qz_signal", RT_STACK_SIGNAL) != 0) {
            rt_log(LOG_ERR, "cannot start the signal thread: SIGTERM/SIGINT will not stop");
            return;
        }
        rt_life_started("signal thread", rt_signals_stop);
    });
}

void rt_signals_stop()
{
    if (g_signals_quit.exchange(true) || pthread_equal(g_signal_thread, pthread_self()))
        return;
    // Its own wake-up: a signal it waits for, sent to it alone.
    pthread_kill(g_signal_thread, SIGTERM);
    pthread_join(g_signal_thread, nullptr);
}

// ---- Paths of this instance ----

namespace {
bool mkdir_p(const std::string &dir, mode_t mode)
{
    for (size_t pos = 1; pos <= dir.size(); pos++) {
        if (pos != dir.size() && dir[pos] != '/')
            continue;
        std::string part = dir.substr(0, pos);
        if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}
} // namespace

bool rt_dir_private(const std::string &dir, std::string &why)
{
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0)
        why = strerror(errno);
    else if (S_ISLNK(st.st_mode))
        why = "is a symbolic link";
    else if (!S_ISDIR(st.st_mode))
        why = "not a directory";
    else if (st.st_uid != geteuid())
        why = "owned by uid " + std::to_string(st.st_uid) + ", not by this user (uid " +
              std::to_string(geteuid()) + ")";
    else if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", (unsigned)(st.st_mode & 07777));
        why = std::string("writable by other users (mode ") + mode + ")";
    } else
        return true;
    return false;
}

std::string rt_runtime_path(const char *name)
{
    const std::string &dir = rt_cfg().runtime_dir;
    static std::mutex mu;
    static std::string made;
    std::string why;
    {
        std::lock_guard g(mu);
        if (made == dir)
            return dir + "/" + name;
        if (!mkdir_p(dir, 0700))
            why = strerror(errno);
        else if (rt_dir_private(dir, why))
            made = dir;
    }
    if (!why.empty()) {
        // Whoever can change the directory can swap our sockets for their own.
        rt_log(LOG_ERR, "runtime_dir %s refused: %s", dir.c_str(), why.c_str());
        if (!rt_cfg().log_stderr)
            fprintf(stderr, "runtime_dir %s refused: %s\n", dir.c_str(), why.c_str());
        exit(1);
    }
    return dir + "/" + name;
}
