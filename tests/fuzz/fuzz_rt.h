// For the fuzz targets of the platform runtime: a process configuration that logs
// nowhere (lines are still formatted) and a scratch runtime directory.
#pragma once
#include <stdlib.h>

#include <string>

#include "rt_config.h"

inline const std::string &fuzz_rt_init()
{
    static const std::string dir = [] {
        char tmpl[] = "/tmp/ltr_fuzz_XXXXXX";
        const char *d = mkdtemp(tmpl);
        rt_config c;
        c.instance = "fuzz";
        c.runtime_dir = d ? d : "/tmp";
        c.log_syslog = false;
        rt_cfg_set(c);
        return c.runtime_dir;
    }();
    return dir;
}
