// The runtime's log: one formatter, to syslog / file / stderr as configured.
#pragma once
#include <stdarg.h>
#include <stdint.h>

#include <string>
#include <vector>

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
// Until the daemon is started, error lines also go to stderr (unless it is a sink
// already, or the journal under systemd): a missing syslog must not swallow why the
// start failed.
void rt_log_started();

// Lines written on this thread while one lives are about one radio or one peer
// ("RADIO", interface name; "PEER", address): the journal gets that field with them.
// The innermost one wins.
class rt_log_about {
  public:
    rt_log_about(const char *field, const char *value);
    rt_log_about(const char *field, uint32_t ipv4); // network order
    ~rt_log_about();
    const char *field() const { return field_; }
    const char *value() const;
    rt_log_about(const rt_log_about &) = delete;
    rt_log_about &operator=(const rt_log_about &) = delete;

  private:
    const char *field_;
    // An address is put in words only when a line is written: most datagrams log none.
    mutable char value_[48];
    uint32_t ipv4_ = 0;
    mutable bool unformatted_ = false;
    rt_log_about *outer_;
};
// Syslog lines go to the journal, with fields, when its socket is at path.
bool rt_journal_present(const char *path = "/run/systemd/journal/socket");
// The fields of one journal entry: MESSAGE (as syslog would show it), PRIORITY,
// SYSLOG_FACILITY, SYSLOG_IDENTIFIER, LTR_TAG for a tagged line, and the field of
// the innermost rt_log_about on this thread.
std::vector<std::string> rt_journal_fields(int severity, const char *tag, const std::string &text,
                                           const std::string &ident);
