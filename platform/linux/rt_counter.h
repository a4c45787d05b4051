// Counters shown by the platform status command.
#pragma once
#include <stdint.h>

#include <atomic>
#include <string>

std::atomic<uint64_t> &rt_counter(const char *name);
std::string rt_status_text(); // "name value\n" lines, sorted by name
