// Configuration parsing: every key lands where the runtime reads it, defaults hold
// for missing keys, and every bad file is refused naming file, line and key.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "rt.h"

namespace {

struct tmp_file {
    std::string path;
    explicit tmp_file(const std::string &text)
    {
        char name[] = "/tmp/qz_cfg_XXXXXX";
        int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        close(fd);
        path = name;
        std::ofstream(path) << text;
    }
    ~tmp_file() { unlink(path.c_str()); }
};

// Parses text; returns the error ("" on success) with the temporary file's path
// replaced by "F".
std::string parse(const std::string &text, rt_config *out = nullptr)
{
    tmp_file f(text);
    rt_config c;
    std::string err;
    bool ok = rt_config_parse(f.path, c, err);
    if (out)
        *out = c;
    if (ok)
        return "";
    size_t p = err.find(f.path);
    if (p != std::string::npos)
        err.replace(p, f.path.size(), "F");
    return err.empty() ? "(empty error)" : err;
}

} // namespace

TEST(Config, EveryKeyIsRead)
{
    rt_config c;
    ASSERT_EQ(parse(R"(
instance = "ap-2"
runtime_dir = "/tmp/qz/ap-2"
foreground = true
[log]
syslog = false
file = "/tmp/ltrd.log"
stderr = true
[mgt]
interface = "eth1"
mac = "02:00:00:AA:bb:01"
ip = "192.0.2.7"
[server]
address = "127.0.0.1:9000"
queue_limit = 4096
[neighbours]
port = 7500
bind = "127.0.0.2"
peers = ["127.0.0.3", "127.0.0.4"]
key_file = "/etc/qz/site.key"
[sim]
world = "/tmp/world.toml"
seed = 42
[owners]
mode = "external"
peer_timeout_ms = 150
[store]
dir = "/tmp/qz-store"
[[radio]]
name = "wifi0"
driver = "sim"
freq = 2412
[[radio]]
name = "wifi1"
driver = "pcap"
access = false
capture = "/tmp/cap.pcap"
)",
                    &c),
              "");
    EXPECT_EQ(c.instance, "ap-2");
    EXPECT_EQ(c.runtime_dir, "/tmp/qz/ap-2");
    EXPECT_TRUE(c.foreground);
    EXPECT_FALSE(c.log_syslog);
    EXPECT_EQ(c.log_file, "/tmp/ltrd.log");
    EXPECT_TRUE(c.log_stderr);
    EXPECT_EQ(c.mgt_interface, "eth1");
    ASSERT_TRUE(c.mgt_mac.has_value());
    EXPECT_EQ(*c.mgt_mac, (std::array<uint8_t, 6>{2, 0, 0, 0xaa, 0xbb, 1}));
    ASSERT_TRUE(c.mgt_ip.has_value());
    const uint8_t *ip = (const uint8_t *)&*c.mgt_ip; // network order in memory
    EXPECT_EQ(ip[0], 192);
    EXPECT_EQ(ip[3], 7);
    EXPECT_EQ(c.server_address, "127.0.0.1:9000");
    EXPECT_EQ(c.server_queue_limit, 4096u);
    EXPECT_EQ(c.nb_port, 7500);
    EXPECT_EQ(c.nb_bind, "127.0.0.2");
    EXPECT_EQ(c.nb_peers, (std::vector<std::string>{"127.0.0.3", "127.0.0.4"}));
    EXPECT_EQ(c.nb_key_file, "/etc/qz/site.key");
    EXPECT_EQ(c.sim_world, "/tmp/world.toml");
    EXPECT_EQ(c.sim_seed, 42u);
    EXPECT_EQ(c.owners_mode, "external");
    EXPECT_EQ(c.owners_peer_timeout_ms, 150u);
    EXPECT_EQ(c.store_dir, "/tmp/qz-store");
    ASSERT_EQ(c.radios.size(), 2u);
    EXPECT_EQ(c.radios[0].name, "wifi0");
    EXPECT_EQ(c.radios[0].driver, "sim");
    EXPECT_TRUE(c.radios[0].access);
    EXPECT_EQ(c.radios[0].freq, 2412);
    EXPECT_EQ(c.radios[1].name, "wifi1");
    EXPECT_EQ(c.radios[1].driver, "pcap");
    EXPECT_FALSE(c.radios[1].access);
    EXPECT_EQ(c.radios[1].capture, "/tmp/cap.pcap");
}

TEST(Config, EmptyFileGivesDefaults)
{
    rt_config c;
    ASSERT_EQ(parse("", &c), "");
    EXPECT_EQ(c.instance, "default");
    if (geteuid() == 0) {
        EXPECT_EQ(c.runtime_dir, "/run/qz/default");
    }
    EXPECT_FALSE(c.foreground);
    EXPECT_TRUE(c.log_syslog);
    EXPECT_TRUE(c.log_file.empty());
    EXPECT_FALSE(c.log_stderr);
    EXPECT_EQ(c.mgt_interface, "mgt0");
    EXPECT_FALSE(c.mgt_mac.has_value());
    EXPECT_FALSE(c.mgt_ip.has_value());
    EXPECT_TRUE(c.server_address.empty());
    EXPECT_EQ(c.server_queue_limit, 1u << 20);
    EXPECT_EQ(c.nb_port, 7421);
    EXPECT_TRUE(c.nb_bind.empty());
    EXPECT_TRUE(c.nb_peers.empty());
    EXPECT_TRUE(c.radios.empty());
    EXPECT_EQ(c.owners_mode, "auto");
    EXPECT_EQ(c.owners_peer_timeout_ms, 300u);
}

TEST(Config, RuntimeDirFollowsInstanceAndRadioDefaults)
{
    rt_config c;
    ASSERT_EQ(parse("instance = \"b\"\n[[radio]]\nname = \"w0\"\n", &c), "");
    if (geteuid() == 0) {
        EXPECT_EQ(c.runtime_dir, "/run/qz/b");
    }
    ASSERT_EQ(c.radios.size(), 1u);
    EXPECT_EQ(c.radios[0].driver, "sim");
    EXPECT_TRUE(c.radios[0].access);
}

TEST(Config, ErrorsNameFileLineAndKey)
{
    struct {
        const char *text;
        const char *err;
    } cases[] = {
        {"instance = \"a\"\ncolour = 1\n", "F:2: colour: unknown key"},
        {"[log]\nsyslog = true\nfile = 3\n", "F:3: log.file: expected a string"},
        {"foreground = \"yes\"\n", "F:1: foreground: expected true or false"},
        {"[log]\nlevel = 7\n", "F:2: log.level: unknown key"},
        {"log = true\n", "F:1: log: expected a table ([log])"},
        {"[neighbours]\nport = 0\n", "F:2: neighbours.port: must be between 1 and 65535"},
        {"[neighbours]\nport = 7421.0\n", "F:2: neighbours.port: expected an integer"},
        {"[neighbours]\npeers = [\n \"10.0.0.1\",\n \"10.0.0\"]\n",
         "F:4: neighbours.peers[1]: expected an IPv4 address such as \"192.0.2.1\""},
        {"[neighbours]\npeers = \"10.0.0.1\"\n",
         "F:2: neighbours.peers: expected an array of IPv4 addresses"},
        {"[mgt]\nmac = \"02:00:00:00:00\"\n",
         "F:2: mgt.mac: expected a MAC address such as \"02:00:00:00:00:01\""},
        {"[mgt]\nip = \"::1\"\n", "F:2: mgt.ip: expected an IPv4 address such as \"192.0.2.1\""},
        {"[mgt]\ninterface = \"a/b\"\n",
         "F:2: mgt.interface: expected an interface name (at most 15 characters, no '/', ':' or "
         "blanks)"},
        {"[server]\naddress = \"localhost\"\n",
         "F:2: server.address: expected \"host:port\" with a port from 1 to 65535"},
        {"[owners]\nmode = \"manual\"\n", "F:2: owners.mode: expected \"auto\" or \"external\""},
        {"instance = \"a/b\"\n",
         "F:1: instance: expected letters, digits, '-', '_' or '.' (at most 64, not starting "
         "with '.')"},
        {"runtime_dir = \"run/qz\"\n", "F:1: runtime_dir: expected an absolute path"},
        {"[[radio]]\nname = \"w0\"\n[[radio]]\nname = \"w1\"\nchannel = 6\n",
         "F:5: radio[1].channel: unknown key"},
        {"[[radio]]\ndriver = \"sim\"\n", "F:1: radio[0].name: missing (every radio needs its "
                                         "interface name)"},
        {"[[radio]]\nname = \"w0\"\n[[radio]]\nname = \"w0\"\n",
         "F:3: radio[1].name: radio \"w0\" is configured twice"},
        {"[[radio]]\nname = \"w0\"\naccess = 1\n", "F:3: radio[0].access: expected true or false"},
        {"radio = 3\n", "F:1: radio: expected [[radio]] tables"},
    };
    for (auto &tc : cases)
        EXPECT_EQ(parse(tc.text), tc.err) << tc.text;
}

TEST(Config, SyntaxErrorNamesFileAndLine)
{
    std::string err = parse("instance = \"a\"\n[log\n");
    EXPECT_EQ(err.rfind("F:2: ", 0), 0u) << err;
}

// The process configuration: a bad file ends the process with status 1 and the
// error on stderr; a missing file means defaults.
TEST(Config, ProcessConfigBadFileExitsWithStatus1)
{
    tmp_file f("foreground = 1\n");
    EXPECT_EXIT(
        {
            setenv("QZ_PLATFORM_CONFIG", f.path.c_str(), 1);
            rt_cfg();
            exit(0);
        },
        testing::ExitedWithCode(1), "foreground: expected true or false");
    EXPECT_EXIT(
        {
            setenv("QZ_PLATFORM_CONFIG", "/nonexistent/qz.toml", 1);
            exit(rt_cfg().instance == "default" && rt_cfg().radios.empty() ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
}
