// Placeholder until this service lands: every call fails.
#include "qz_log.h"
#include "rt.h"
uint32_t qz_lib_dbg;
void qz_log(int, int sev, const char *fmt, ...) { va_list ap; va_start(ap, fmt); rt_vlog(sev, nullptr, fmt, ap); va_end(ap); }
void __qz_dbg(const char *, int, const char *tag, const char *fmt, ...) { va_list ap; va_start(ap, fmt); rt_vlog(7, tag, fmt, ap); va_end(ap); }
void __qz_err(const char *, int, const char *fmt, ...) { va_list ap; va_start(ap, fmt); rt_vlog(3, nullptr, fmt, ap); va_end(ap); }
void qz_hexdump(const void *, int) {}
int qz_register_debug_flag(const char *, const char *, uint32_t *, uint32_t) { return -1; }
int qz_register_dbg_lib_flag(const char *, const char *, uint32_t *, uint32_t) { return -1; }
int rt_debug_switch(const char *, const char *, bool) { return -1; }
