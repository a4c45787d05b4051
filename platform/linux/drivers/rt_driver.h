// Radios and their drivers: what a radio driver implements, what the runtime gives it,
// and the registry that maps a [[radio]] table's `driver` to its operations.
#pragma once
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "qz_dcd.h"

struct rt_config;

// One [[radio]] table. name, driver and access are common to every driver; every other
// key of the table belongs to the driver, which parses it into conf.
struct rt_radio_cfg {
    std::string name;           // Linux interface name
    std::string driver;         // a name of the registry ("sim" when unset)
    bool access = true;         // false: the radio offers no client access
    std::shared_ptr<void> conf = nullptr; // the driver's own keys; null while the table has none
};

// One driver-specific key of a [[radio]] table, handed to its driver's config_key.
// The rt_cfg_* readers take its value; on a wrong one they return false with the error
// "file:line: radio[i].key: what", as every other configuration error.
struct rt_cfg_key {
    const char *key;      // the key's own name ("freq")
    std::string name;     // its dotted name ("radio[0].freq")
    const std::string *file;
    int line;
    const void *node;     // the value, read only through the rt_cfg_* readers
    std::string *err;
};
bool rt_cfg_fail(const rt_cfg_key &k, const std::string &what);
bool rt_cfg_str(const rt_cfg_key &k, std::string &out);
bool rt_cfg_bool(const rt_cfg_key &k, bool &out);
bool rt_cfg_int(const rt_cfg_key &k, int64_t &out, int64_t lo, int64_t hi);
// A number, integer or not, in [lo, hi].
bool rt_cfg_num(const rt_cfg_key &k, double &out, double lo, double hi);

// The driver's configuration of a radio, made on its first key.
template <typename T> T &rt_radio_conf(rt_radio_cfg &c)
{
    if (!c.conf)
        c.conf = std::make_shared<T>();
    return *static_cast<T *>(c.conf.get());
}
// Read side: the defaults of T when the table held none of the driver's keys.
template <typename T> const T &rt_radio_conf(const rt_radio_cfg &c)
{
    static const T defaults{};
    return c.conf ? *static_cast<const T *>(c.conf.get()) : defaults;
}

struct rt_radio {
    int id;              // position in the configuration
    rt_radio_cfg cfg;
    const struct rt_driver_ops *ops;
    void *priv;          // the driver's state, set by open
};

// What a driver implements. Operations of one radio come from several threads at once
// (the daemon's, under its lock, and the owner service's worker): keep a lock per
// radio. open and close never overlap any other call. Any member but name may be null;
// a call whose member is null fails (-1). Return values are those of the qz_dcd_* call
// of the same name: 0 on success, negative on failure.
struct rt_driver_ops {
    // The registry name, the value of the [[radio]] `driver` key.
    const char *name;
    // Parses one driver-specific key of a [[radio]] table into cfg.conf (see
    // rt_radio_conf) while the configuration is read, long before open: store, touch
    // nothing else. A key the driver does not know is rt_cfg_fail(k, "unknown key").
    // Null: the driver has no keys of its own, every other key is unknown.
    bool (*config_key)(rt_radio_cfg &cfg, const rt_cfg_key &k);
    // Parses one key of the driver's own top-level table, the one named like the
    // driver ([sim]), into rt_driver_conf(c, name) (rt_config.h); unknown keys as above.
    // Null: a table of that name is an unknown key.
    bool (*section_key)(rt_config &c, const rt_cfg_key &k);
    // Start-up, once per radio in configuration order, before any other call: makes
    // r->priv. A file descriptor goes to rt_io_add, a capture thread is started here
    // (rt_thread_create). A failure ends the start; log why first.
    int (*open)(rt_radio *r);
    // Shutdown, after every runtime thread that calls drivers has ended: removes its
    // descriptors, joins its threads and frees r->priv.
    void (*close)(rt_radio *r);
    // Tracking switch: while off the report table is empty.
    int (*set_track_enable)(rt_radio *r, int enable);
    // List match: when on, only stations matching a track object are reported.
    int (*set_lmatch)(rt_radio *r, int value);
    // Adds or deletes one track object (a MAC, or an OUI when obj->is_oui), counting
    // misses and full tables in the statistics. drv_track does all of it.
    int (*set_trackobj)(rt_radio *r, const lta_trackobj *obj);
    // Report table: fills at most *count entries of buf and sets *count to how many.
    // Called under the daemon's lock every report interval: copy, never wait for I/O.
    int (*get_rpt_tbl)(rt_radio *r, lta_rpt_entry *buf, int *count);
    // One associated station: writes the record u16 length, u16 channel frequency,
    // MAC (10 bytes, host order) to buf and its length to *len; fails when mac is not
    // associated with this radio.
    int (*get_one_sta)(rt_radio *r, const uint8_t *mac, void *buf, int buflen, int *len);
    // The five statistics (drv_track keeps them).
    int (*get_stats)(rt_radio *r, lta_stats *stats);
};

// The registry: the drivers of this build, null for an unknown name.
const rt_driver_ops *rt_driver_find(const std::string &name);
// Their names, comma separated ("sim"), "none" when the build has none.
std::string rt_driver_names();

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

// ---- Radio I/O: one runtime thread polls the descriptors that drivers add ----

// fn(arg) runs on the radio I/O thread each time fd is readable (level-triggered: it
// must read what is there). The thread starts with the first descriptor and ends with
// the runtime. 0, or -1 when fd is bad or already added.
int rt_io_add(int fd, void (*fn)(void *arg), void *arg);
// Once this returns, fn runs no more for fd (it may be called from fn itself). It waits
// for a running fn: do not hold a lock that fn takes.
void rt_io_remove(int fd);
