// Helpers of the store's runtime tests: a private temporary directory and whole-file
// reads and writes.
#pragma once
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "db_store.h"
#include "rt.h"

using db_bytes = std::vector<uint8_t>;

inline db_bytes db_read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    return db_bytes(std::istreambuf_iterator<char>(f), {});
}

inline void db_write_file(const std::string &path, const db_bytes &b)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write((const char *)b.data(), (std::streamsize)b.size());
}

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
    std::vector<std::string> names() const // directory content, sorted
    {
        std::vector<std::string> out;
        for (auto &e : std::filesystem::directory_iterator(dir))
            out.push_back(e.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }
};
