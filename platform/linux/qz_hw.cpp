// Radio enumeration: the [[radio]] entries of the configuration, in order.
#include "qz_hw.h"

#include "rt_config.h"

int qz_radio_count(void)
{
    return (int)rt_cfg().radios.size();
}

const char *qz_ifname_id2radio(int i)
{
    const rt_config &c = rt_cfg();
    if (i < 0 || (size_t)i >= c.radios.size())
        return nullptr;
    return c.radios[i].name.c_str();
}
