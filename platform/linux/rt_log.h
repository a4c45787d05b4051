// The runtime's log: one formatter, to syslog / file / stderr as configured.
#pragma once
#include <stdarg.h>

#include <string>

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
// already): a missing syslog must not swallow why the start failed.
void rt_log_started();
