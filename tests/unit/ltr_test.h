// Shared fixture of the core's unit tests: a fresh fake platform and a fresh core.
#pragma once
#include <gtest/gtest.h>
#include <string.h>

#include "core_reset.h"
#include "fake_platform.h"
#include "ltr_mgt.h"

// IPv4 address in network order from four octets.
inline uint32_t ltr_ip(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    uint8_t o[4] = {a, b, c, d};
    uint32_t ip;
    memcpy(&ip, o, 4);
    return ip;
}

class LtrTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        ltr_test_reset_core();
    }
    void TearDown() override { ltr_test_reset_core(); }
};
