// Shared by the store's runtime tests: a private temporary directory with the
// instance's store_dir unset.
#pragma once
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "db_store.h"
#include "rt.h"

class DbDir : public ::testing::Test {
  public:
    std::string dir;
    rt_config saved;
    void SetUp() override
    {
        saved = rt_cfg();
        rt_config c = saved;
        c.store_dir.clear();
        rt_cfg_set(c);
        const char *t = getenv("TMPDIR");
        std::string tmpl = std::string(t && *t ? t : "/tmp") + "/qz_db_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir = tmpl;
    }
    void TearDown() override
    {
        rt_cfg_set(saved);
        std::filesystem::remove_all(dir);
    }
    std::string path(const char *name) const { return dir + "/" + name; }
};
