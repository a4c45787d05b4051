// Helpers of the core and tracking-control tests.
#pragma once
#include <string>
#include <vector>

#include "ltr_test.h"

// Settings without the shared segment: for tests that need no start-up.
inline ltr_cfg core_defaults()
{
    ltr_cfg c{};
    c.inited = 1;
    c.lmatch = LTR_DEF_LMATCH;
    c.rssi_threshold = LTR_DEF_RSSI_THRESHOLD;
    c.rpt_interval = LTR_DEF_RPT_INTERVAL;
    c.valid_period = LTR_DEF_VALID_PERIOD;
    return c;
}

// The first argument (the interface index) of every call of fn, in order.
inline std::vector<int64_t> core_ifindexes(const std::string &fn)
{
    std::vector<int64_t> out;
    for (auto &c : fake::calls_of(fn))
        out.push_back(c.args.at(0));
    return out;
}

// The names of the calls among `of`, in the order they were made.
inline std::vector<std::string> core_calls_among(const std::vector<std::string> &of)
{
    std::vector<std::string> out;
    for (auto &n : fake::call_names())
        for (auto &o : of)
            if (n == o)
                out.push_back(n);
    return out;
}

inline fake::bytes core_ifchange(uint32_t type, int32_t ifindex, uint32_t flags, const char *name)
{
    fake::bytes b(12);
    memcpy(b.data(), &type, 4);
    memcpy(b.data() + 4, &ifindex, 4);
    memcpy(b.data() + 8, &flags, 4);
    b.insert(b.end(), name, name + strlen(name) + 1);
    return b;
}
