// The driver registry: one row per driver built in (each behind its LTR_DRIVER_* option).
#include <span>

#include "rt_driver.h"

#ifdef LTR_DRIVER_SIM
extern const rt_driver_ops rt_driver_sim;
#endif
#ifdef LTR_DRIVER_PCAP
extern const rt_driver_ops rt_driver_pcap;
#endif

namespace {

const rt_driver_ops *const drivers[] = {
#ifdef LTR_DRIVER_SIM
    &rt_driver_sim,
#endif
#ifdef LTR_DRIVER_PCAP
    &rt_driver_pcap,
#endif
    nullptr, // keeps the array valid in a build without drivers
};

std::span<const rt_driver_ops *const> built() { return {drivers, std::size(drivers) - 1}; }

} // namespace

const rt_driver_ops *rt_driver_find(const std::string &name)
{
    for (const rt_driver_ops *d : built())
        if (name == d->name)
            return d;
    return nullptr;
}

std::string rt_driver_names()
{
    std::string s;
    for (const rt_driver_ops *d : built())
        s += (s.empty() ? "" : ", ") + std::string(d->name);
    return s.empty() ? "none" : s;
}
