// The shipped example configuration is accepted and starts every radio's driver.
#include <gtest/gtest.h>

#include "rt.h"
#include "rt_config.h"

TEST(ExampleConfig, StartsUnderTheSystemdUnit)
{
    const std::string path = std::string(LTR_SOURCE_DIR) + "/examples/platform.toml";
    rt_config c;
    std::string err;
    ASSERT_TRUE(rt_config_parse(path, c, err)) << err;

    // The unit is Type=exec: a daemon that detaches looks to systemd as if it ended.
    EXPECT_TRUE(c.foreground);
    // An unknown driver makes the driver library, and so the start, fail.
    ASSERT_FALSE(c.radios.empty());
    for (const rt_radio_cfg &r : c.radios)
        EXPECT_NE(rt_driver_find(r.driver), nullptr) << r.name << ": driver " << r.driver;
    // A real access point: its identity comes from its interface, not fixed values.
    EXPECT_FALSE(c.mgt_mac.has_value());
    EXPECT_FALSE(c.mgt_ip.has_value());
    EXPECT_FALSE(c.server_address.empty());
    // Location data leaves it over TLS, and the server can tell who speaks.
    EXPECT_TRUE(rt_server_tls(c));
    EXPECT_FALSE(c.server_ca_file.empty() || c.server_cert_file.empty() || c.server_key_file.empty());
}
