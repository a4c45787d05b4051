// Placeholder until this service lands: every call fails.
#include "rt.h"
const rt_driver_ops rt_driver_sim = {"sim", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
