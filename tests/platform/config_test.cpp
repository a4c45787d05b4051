// Configuration parsing and checking; errors name file, line and key.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "rt_config.h"
#include "rt_process.h"
#include "rt_test_util.h"
#include "sim_radio.h"
#include "test_certs.h"

namespace {

struct tmp_file {
    std::string path;
    explicit tmp_file(const std::string &text)
    {
        char name[] = "/tmp/qz_cfg_XXXXXX";
        close(mkstemp(name));
        path = name;
        std::ofstream(path) << text;
    }
    ~tmp_file() { unlink(path.c_str()); }
};

// Parses text; returns the error ("" on success) with the file's path replaced by "F".
std::string parse(const std::string &text, rt_config *out = nullptr)
{
    tmp_file f(text);
    rt_config c;
    std::string err;
    bool ok = rt_config_parse(f.path, c, err);
    if (out)
        *out = c;
    if (size_t p = err.find(f.path); p != std::string::npos)
        err.replace(p, f.path.size(), "F");
    return ok ? "" : err.empty() ? "(empty error)" : err;
}

// Parses and checks text; returns the error ("" on success) with the path as "F".
std::string check(const std::string &text, rt_config *out = nullptr)
{
    tmp_file f(text);
    rt_config c;
    std::string err;
    if (!rt_config_parse(f.path, c, err) || !rt_config_check(c, err))
        return err.replace(0, f.path.size(), "F");
    if (out)
        *out = c;
    return err;
}

} // namespace

TEST(Config, EveryKeyIsRead)
{
    rt_config c;
    ASSERT_EQ(parse(R"(instance = "ap-2"
runtime_dir = "/tmp/qz/ap-2"
foreground = true
log = {syslog = false, file = "/tmp/ltrd.log", stderr = true}
mgt = {interface = "eth1", mac = "02:00:00:AA:bb:01", ip = "192.0.2.7"}
server = {address = "127.0.0.1:9000", queue_limit = 4096, tls = true, ca_file = "/c", server_name = "s", cert_file = "/a", key_file = "/k"}
neighbours = {port = 7500, bind = "127.0.0.2", peers = ["127.0.0.3", "127.0.0.4"], key_file = "/etc/qz/site.key"}
sim = {world = "/tmp/world.toml", seed = 42, epoch = 1764000000.5}
owners = {mode = "external", peer_timeout_ms = 150}
store = {dir = "/tmp/qz-store"}
radio = [{name = "wifi0", freq = 2412}, {name = "wifi1", driver = "pcap", access = false, capture = "/tmp/cap.pcap"}]
)", &c), "");
    using v = std::vector<std::string>;
    EXPECT_EQ((v{c.instance, c.runtime_dir, c.log_file, c.mgt_interface, c.server_address, c.nb_bind,
                 c.nb_key_file, rt_driver_conf<sim_conf>(std::as_const(c), "sim").world, c.owners_mode, c.store_dir}),
              (v{"ap-2", "/tmp/qz/ap-2", "/tmp/ltrd.log", "eth1", "127.0.0.1:9000", "127.0.0.2",
                 "/etc/qz/site.key", "/tmp/world.toml", "external", "/tmp/qz-store"}));
    EXPECT_TRUE(c.foreground && !c.log_syslog && c.log_stderr);
    EXPECT_EQ(c.mgt_mac, (std::array<uint8_t, 6>{2, 0, 0, 0xaa, 0xbb, 1}));
    EXPECT_EQ(c.mgt_ip, inet_addr("192.0.2.7")); // network order
    EXPECT_EQ((v{c.server_ca_file, c.server_name, c.server_cert_file, c.server_key_file}), (v{"/c", "s", "/a", "/k"}));
    EXPECT_TRUE(rt_server_tls(c));
    EXPECT_EQ(c.nb_peers, (v{"127.0.0.3", "127.0.0.4"}));
    const sim_conf &sim = rt_driver_conf<sim_conf>(std::as_const(c), "sim");
    EXPECT_EQ(std::tuple(c.server_queue_limit, +c.nb_port, sim.seed, sim.epoch, c.owners_peer_timeout_ms),
              std::tuple(4096u, 7500, 42u, 1764000000.5, 150u));
    ASSERT_EQ(c.radios.size(), 2u);
    // An unset driver and access default to "sim" and true.
    // Keys of a driver this build lacks wait for the check, which refuses the driver.
    EXPECT_EQ((v{c.radios[0].name, c.radios[0].driver, c.radios[1].name, c.radios[1].driver}),
              (v{"wifi0", "sim", "wifi1", "pcap"}));
    EXPECT_TRUE(c.radios[0].access && !c.radios[1].access);
    EXPECT_EQ(rt_radio_conf<sim_radio_conf>(std::as_const(c.radios[0])).freq, 2412);
}

TEST(Config, ErrorsNameFileLineAndKey)
{
    const std::pair<const char *, const char *> cases[] = {
        {"instance = \"a\"\ncolour = 1\n", "F:2: colour: unknown key"},
        {"[log]\nsyslog = true\nfile = 3\n", "F:3: log.file: expected a string"},
        {"foreground = \"yes\"\n", "F:1: foreground: expected true or false"},
        {"log = true\n", "F:1: log: expected a table ([log])"},
        {"[neighbours]\nport = 0\n", "F:2: neighbours.port: must be between 1 and 65535"},
        {"[neighbours]\nport = 7421.0\n", "F:2: neighbours.port: expected an integer"},
        {"[neighbours]\npeers = [\n \"10.0.0.1\",\n \"10.0.0\"]\n",
         "F:4: neighbours.peers[1]: expected an IPv4 address such as \"192.0.2.1\""},
        {"[mgt]\nmac = \"02:00:00:00:00\"\n", "F:2: mgt.mac: expected a MAC address such as \"02:00:00:00:00:01\""},
        {"[mgt]\ninterface = \"a/b\"\n",
         "F:2: mgt.interface: expected an interface name (at most 15 characters, no '/', ':' or blanks)"},
        {"[server]\naddress = \"localhost\"\n",
         "F:2: server.address: expected \"host:port\" with a port from 1 to 65535"},
        {"[server]\naddress = \"fd00::1:7420\"\n",
         "F:2: server.address: expected an IPv6 address in brackets: \"[address]:port\""},
        {"[server]\naddress = \"[fd00::1\"\n",
         "F:2: server.address: expected \"host:port\" with a port from 1 to 65535"},
        {"[owners]\nmode = \"manual\"\n", "F:2: owners.mode: expected \"auto\" or \"external\""},
        {"instance = \"a/b\"\n",
         "F:1: instance: expected letters, digits, '-', '_' or '.' (at most 64, not starting with '.')"},
        {"runtime_dir = \"run/qz\"\n", "F:1: runtime_dir: expected an absolute path"},
        // "/events.sock" must still fit a socket address.
        {"runtime_dir = \"/96-characters-long-96-characters-long-96-characters-long-"
         "96-characters-long-96-characters-long-\"\n",
         "F:1: runtime_dir: too long for its sockets (at most 95 characters)"},
        {"[[radio]]\nname = \"w0\"\n[[radio]]\nname = \"w1\"\nchannel = 6\n", "F:5: radio[1].channel: unknown key"},
        // A radio's other keys are its driver's: read by it, unknown to the others.
        {"[[radio]]\nname = \"w0\"\nfreq = 70000\n", "F:3: radio[0].freq: must be between 0 and 65535"},
        {"[[radio]]\ncapture = \"/tmp/c.pcap\"\nname = \"w0\"\n", "F:2: radio[0].capture: unknown key"},
        {"[sim]\nseed = 1\ncolour = 1\n", "F:3: sim.colour: unknown key"},
        {"sim = 1\n", "F:1: sim: expected a table ([sim])"},
        {"[[radio]]\ndriver = \"sim\"\n", "F:1: radio[0].name: missing (every radio needs its interface name)"},
        {"[[radio]]\nname = \"w0\"\n[[radio]]\nname = \"w0\"\n", "F:3: radio[1].name: radio \"w0\" is configured twice"},
        {"radio = 3\n", "F:1: radio: expected [[radio]] tables"},
    };
    for (auto &[text, err] : cases)
        EXPECT_EQ(parse(text), err) << text;
    std::string err = parse("instance = \"a\"\n[log\n"); // syntax error
    EXPECT_EQ(err.rfind("F:2: ", 0), 0u) << err;
}

// Files named by the configuration (and the configuration itself) are read only when
// they are regular and small: a FIFO would block, /dev/zero never ends.
TEST(Config, CheckRefusesUnknownDriversAndUnusableKeyFiles)
{
    rt_scratch s;
    std::ofstream(s.path("good")) << "site secret\n";
    std::ofstream(s.path("empty")) << "\r\n";
    std::ofstream(s.path("big")) << std::string(5000, 'k');
    ASSERT_EQ(mkfifo(s.path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink(s.path("good").c_str(), s.path("link").c_str()), 0);
    const std::pair<std::string, std::string> keys[] = {
        {s.path("good"), ""},
        {s.path("none"), "No such file or directory"},
        {s.path("empty"), "empty key"},
        {s.path("fifo"), "not a regular file"},
        {"/dev/zero", "not a regular file"},
        {s.path("link"), "is a symbolic link"},
        {s.path("big"), "larger than 4096 bytes"},
    };
    for (auto &[path, why] : keys)
        EXPECT_EQ(check("[neighbours]\nkey_file = \"" + path + "\"\n"),
                  why.empty() ? "" : "F:2: neighbours.key_file: " + path + ": " + why);
    EXPECT_EQ(check("[[radio]]\nname = \"w0\"\n[[radio]]\nname = \"w1\"\ndriver = \"wext\"\n"),
              "F:5: radio[1].driver: unknown driver \"wext\" (this build has: " + rt_driver_names() + ")");
    rt_config c;
    std::string err;
    EXPECT_FALSE(rt_config_parse(s.path("fifo"), c, err));
    EXPECT_EQ(err, s.path("fifo") + ": not a regular file");
}

// TLS keys that cannot work together, or files that do not load, end the start
// instead of failing every connection later.
TEST(Config, ServerTlsKeysFitTogetherAndTheirFilesLoad)
{
    rt_scratch s;
    test_ca ca(s.dir, "site");
    std::string ap = ca.issue("ap", "ap1", ""), ap2 = ca.issue("ap2", "ap2", "");
    std::ofstream(s.path("junk")) << "not a certificate\n";
    ASSERT_EQ(mkfifo(s.path("fifo").c_str(), 0600), 0);
    auto tls = [](const std::string &keys, rt_config *out = nullptr) {
        return check("[server]\naddress = \"192.0.2.1:7420\"\n" + keys, out);
    };
    std::string ca_line = "ca_file = \"" + ca.ca_file() + "\"\n";
    auto pair = [](const std::string &cert, const std::string &key) {
        return "cert_file = \"" + cert + ".crt\"\nkey_file = \"" + key + ".key\"\n";
    };
    rt_config c;
    EXPECT_EQ(tls("", &c), "");
    EXPECT_FALSE(rt_server_tls(c)); // older configurations keep plain TCP
    EXPECT_EQ(tls(ca_line + pair(ap, ap), &c), "");
    EXPECT_TRUE(rt_server_tls(c)); // a CA alone asks for TLS
    EXPECT_EQ(tls("tls = true\n"), "F:3: server.tls: needs server.ca_file (the CA that signed the "
                                     "server's certificate)");
    EXPECT_EQ(tls("tls = false\n" + ca_line), "F:4: server.ca_file: not used with server.tls = false");
    EXPECT_EQ(tls(pair(ap, ap)), "F:3: server.cert_file: needs TLS: set server.tls = true and server.ca_file");
    EXPECT_EQ(tls(ca_line + "cert_file = \"" + ap + ".crt\"\n"), "F:4: server.cert_file: needs server.key_file");
    EXPECT_EQ(tls("ca_file = \"" + s.path("junk") + "\"\n"),
              "F:3: server.ca_file: " + s.path("junk") + ": no PEM certificate in it");
    EXPECT_EQ(tls("ca_file = \"" + s.path("fifo") + "\"\n"),
              "F:3: server.ca_file: " + s.path("fifo") + ": not a regular file");
    EXPECT_EQ(tls(ca_line + pair(ap, ap2)),
              "F:5: server.key_file: " + ap2 + ".key: the key does not belong to server.cert_file");
}

// Whoever can change runtime_dir can swap the daemon's sockets for their own.
TEST(Config, RuntimeDirOthersCouldChangeEndsTheStart)
{
    rt_scratch s;
    auto use = [](const std::string &run) {
        rt_config c;
        c.runtime_dir = run;
        c.log_syslog = false;
        rt_cfg_set(c);
        rt_runtime_path("cli.sock");
        exit(0);
    };
    mkdir(s.path("open").c_str(), 0700);
    chmod(s.path("open").c_str(), 0777);
    EXPECT_EXIT(use(s.path("open")), testing::ExitedWithCode(1),
                "runtime_dir .*/open refused: writable by other users \\(mode 0777\\)");
    ASSERT_EQ(symlink(s.path("open").c_str(), s.path("link").c_str()), 0);
    EXPECT_EXIT(use(s.path("link")), testing::ExitedWithCode(1), "refused: is a symbolic link");
    if (geteuid() == 0) {
        mkdir(s.path("theirs").c_str(), 0700);
        ASSERT_EQ(chown(s.path("theirs").c_str(), 65534, 65534), 0);
        EXPECT_EXIT(use(s.path("theirs")), testing::ExitedWithCode(1),
                    "refused: owned by uid 65534, not by this user \\(uid 0\\)");
    }
}

// A bad process configuration ends the process with status 1 and the error on stderr.
TEST(Config, ProcessConfigBadFileExitsWithStatus1)
{
    const std::pair<const char *, const char *> cases[] = {
        {"foreground = 1\n", "foreground: expected true or false"},
        {"[neighbours]\nkey_file = \"/dev/zero\"\n", ":2: neighbours.key_file: /dev/zero: not a regular file"},
    };
    for (auto &[text, err] : cases) {
        tmp_file f(text);
        EXPECT_EXIT((setenv("QZ_PLATFORM_CONFIG", f.path.c_str(), 1), rt_cfg(), exit(0)),
                    testing::ExitedWithCode(1), err);
    }
}
