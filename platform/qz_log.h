// Logging and debug library.
//
// Every formatting call understands, besides the usual conversions with width and
// '-' flag, %m (argument: pointer to a 6-byte MAC address) and %i (argument: a
// 32-bit IPv4 address in network byte order). The format attribute is left off on
// purpose: the compiler does not know these conversions.
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Library debug word, owned by the platform libraries.
extern uint32_t qz_lib_dbg;

// Always-on log line. severity: syslog levels (3 error, 4 warning, ...).
void qz_log(int category, int severity, const char *fmt, ...);
// One debug line, tagged.
void __qz_dbg(const char *prefix, int line, const char *tag, const char *fmt, ...);
// Error output of a failed assertion.
void __qz_err(const char *file, int line, const char *fmt, ...);
// Hex dump into the debug output.
void qz_hexdump(const void *addr, int len);
// The debug command sets or clears mask in *word when the operator switches the
// category name of module on or off. Negative on failure.
int qz_register_debug_flag(const char *module, const char *name, uint32_t *word, uint32_t mask);
int qz_register_dbg_lib_flag(const char *module, const char *name, uint32_t *word, uint32_t mask);

#ifdef __cplusplus
}
#endif
