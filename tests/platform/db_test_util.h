// A private store directory for the store tests (store_dir unset).
#pragma once
#include <gtest/gtest.h>

#include "db_store.h"
#include "rt_config.h"
#include "rt_test_util.h"

struct DbDir : ::testing::Test {
    rt_scratch scratch;
    std::string dir = scratch.dir;
    rt_config saved = rt_cfg();
    void SetUp() override
    {
        rt_config c = saved;
        c.store_dir.clear();
        rt_cfg_set(c);
    }
    void TearDown() override { rt_cfg_set(saved); }
    std::string path(const char *name) const { return dir + "/" + name; }
};
