// The runtime's radios and their drivers (declared in drivers/rt_driver.h). The daemon
// never includes this: it sees only the platform headers one folder up.
#pragma once
#include "rt_driver.h"
