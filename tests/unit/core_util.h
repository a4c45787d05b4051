// Helpers of the core and tracking-control tests.
#pragma once
#include <set>
#include <string>
#include <vector>

#include "ltr_test.h"

// Settings without the shared segment, for tests that need no start-up.
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

// The calls named in `of`, in the order they were made.
inline std::vector<std::string> core_calls_among(const std::vector<std::string> &of)
{
    std::set<std::string> names(of.begin(), of.end());
    std::vector<std::string> out;
    for (auto &n : fake::call_names())
        if (names.count(n))
            out.push_back(n);
    return out;
}

inline bool core_lock_free()
{
    if (pthread_mutex_trylock(&mgt.lock) != 0)
        return false;
    pthread_mutex_unlock(&mgt.lock);
    return true;
}
