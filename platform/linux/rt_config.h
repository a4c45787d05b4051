// The runtime's configuration: TOML at $QZ_PLATFORM_CONFIG, else /etc/qz/platform.toml.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rt.h"

struct rt_config {
    std::string path;              // the file read, or "" when none existed
    std::string instance = "default";
    std::string runtime_dir;       // default /run/qz/<instance>
    bool foreground = false;
    bool log_syslog = true;
    std::string log_file;
    bool log_stderr = false;
    std::string mgt_interface = "mgt0";
    std::optional<std::array<uint8_t, 6>> mgt_mac;
    std::optional<uint32_t> mgt_ip; // network order
    std::string server_address;     // host:port, "" = channel down
    uint32_t server_queue_limit = 1 << 20;
    // TLS on the server channel. Unset: on when a CA file is given, else plain TCP
    // (with a warning), so that a configuration older than TLS keeps working.
    std::optional<bool> server_tls;
    std::string server_ca_file;   // PEM: the CA(s) that the server's certificate must chain to
    std::string server_name;      // name to verify; "" = the host of server_address
    std::string server_cert_file; // PEM: this access point's certificate (mutual TLS)
    std::string server_key_file;  // PEM: its private key
    uint16_t nb_port = 7421;
    std::string nb_bind;            // IPv4 text; "" = the management IPv4
    std::vector<std::string> nb_peers;
    std::string nb_key_file;
    std::vector<rt_radio_cfg> radios;
    // Drivers' own tables ([sim]) by driver name, as their section_key made them.
    std::map<std::string, std::shared_ptr<void>> driver_conf;
    std::string owners_mode = "auto"; // "auto" or "external"
    uint32_t owners_peer_timeout_ms = 300;
    std::string store_dir; // "" = store paths as the daemon gives them
    std::string shm_dir;   // unused by System V; reserved
    std::map<std::string, int> lines; // dotted key ("radio[0].driver") -> its line
};

// A driver's own table, made on its first key; the defaults of T while it has none.
template <typename T> T &rt_driver_conf(rt_config &c, const std::string &driver)
{
    std::shared_ptr<void> &p = c.driver_conf[driver];
    if (!p)
        p = std::make_shared<T>();
    return *static_cast<T *>(p.get());
}
template <typename T> const T &rt_driver_conf(const rt_config &c, const std::string &driver)
{
    static const T defaults{};
    auto it = c.driver_conf.find(driver);
    return it == c.driver_conf.end() ? defaults : *static_cast<const T *>(it->second.get());
}

// Whether the server channel runs TLS.
inline bool rt_server_tls(const rt_config &c) { return c.server_tls.value_or(!c.server_ca_file.empty()); }

// Parses a TOML file. On error returns false and sets err to "file:line: key: what".
bool rt_config_parse(const std::string &path, rt_config &out, std::string &err);
// The same for a file's text already read; path only names it in errors.
bool rt_config_parse_text(const std::string &text, const std::string &path, rt_config &out,
                          std::string &err);
// What parsing cannot see: every radio's driver exists in this build, and a configured
// site key is readable and not empty. Errors as rt_config_parse's.
bool rt_config_check(const rt_config &c, std::string &err);
// Reads a whole regular file of at most max bytes without ever blocking (a FIFO, a
// device or a larger file is refused); with nofollow a symbolic link is refused too.
// On failure why says what was wrong.
bool rt_read_regular(const std::string &path, size_t max, bool nofollow, std::string &out,
                     std::string &why);
// The site key of key_file: its bytes without trailing line ends, never empty.
bool rt_read_key(const std::string &path, std::string &key, std::string &why);
// The configuration file's path: $QZ_PLATFORM_CONFIG, else /etc/qz/platform.toml.
std::string rt_config_path();
// Reads and checks the file at rt_config_path(); a missing file gives the defaults
// (said on stderr). False with err as rt_config_parse's.
bool rt_config_load(rt_config &out, std::string &err);
// The process's configuration, loaded on first use; a bad file ends the process with
// status 1 after printing the error.
const rt_config &rt_cfg();
// Tests only: replace the process configuration.
void rt_cfg_set(const rt_config &cfg);
