// The runtime's radios and their drivers. The daemon never includes this: it sees only
// the platform headers one folder up.
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

#include "qz_dcd.h"

struct rt_radio_cfg {
    std::string name;   // Linux interface name
    std::string driver; // "sim" or "pcap"
    bool access = true; // false: the radio offers no client access
    std::string capture; // pcap: capture file or monitor interface
    uint16_t freq = 0;   // sim: channel frequency in MHz (0: from the world file)
};

struct rt_radio;

// One driver; each member may be null when the driver lacks the operation (the
// call then fails). Results as the qz_dcd_* calls.
struct rt_driver_ops {
    const char *name;
    int (*open)(rt_radio *r);  // 0 / negative
    void (*close)(rt_radio *r);
    int (*set_track_enable)(rt_radio *r, int enable);
    int (*set_lmatch)(rt_radio *r, int value);
    int (*set_trackobj)(rt_radio *r, const lta_trackobj *obj);
    int (*get_rpt_tbl)(rt_radio *r, lta_rpt_entry *buf, int *count);
    int (*get_one_sta)(rt_radio *r, const uint8_t *mac, void *buf, int buflen, int *len);
    int (*get_stats)(rt_radio *r, lta_stats *stats);
};

struct rt_radio {
    int id;              // position in the configuration
    rt_radio_cfg cfg;
    const rt_driver_ops *ops;
    void *priv;          // the driver's state
};

extern const rt_driver_ops rt_driver_sim;
// The driver registry: null for an unknown name.
const rt_driver_ops *rt_driver_find(const std::string &name);

// Radios of the configuration (opened by qz_dcd_lib_init).
std::vector<rt_radio *> rt_radios();
rt_radio *rt_radio_by_ifindex(int ifindex);
rt_radio *rt_radio_by_name(const std::string &name);
// Resolves every radio's interface index afresh (driver library open, link events);
// if_nametoindex and if_indextoname answer radios from this table.
void rt_radio_index_refresh();
// Whether a radio's last two report tables held the station (tracking on).
bool rt_radio_hears(const uint8_t mac[6]);

// The management interface's addresses (configured values win).
int rt_mgt_mac(uint8_t mac[6]);
int rt_mgt_ip(uint32_t *ip);
