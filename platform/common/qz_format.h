// The platform's one text formatter: printf conversions plus %m (MAC) and %i (IPv4).
#pragma once
#include <stdarg.h>
#include <stddef.h>
#include <string>

// Like vsnprintf: writes at most size-1 characters and a NUL, returns the length the
// whole text has. %m takes a pointer to 6 bytes and prints "xxxx.xxxx.xxxx"; %i takes a
// 32-bit IPv4 address in network order and prints dotted quad. Both honour width and '-'.
int qz_vformat(char *buf, size_t size, const char *fmt, va_list ap);
std::string qz_vformat_str(const char *fmt, va_list ap);
std::string qz_format_str(const char *fmt, ...);
