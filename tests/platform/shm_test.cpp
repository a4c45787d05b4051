// Shared memory per instance and key, kept across a restart.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include "qz.h"
#include "rt_config.h"
#include "rt_process.h"
#include "rt_test_util.h"

namespace {
// Attaches the instance's segment for key 0x10201 (20 bytes).
uint8_t *attach(const rt_scratch &s, const std::string &instance, int &id)
{
    rt_cfg_set(rt_test_config(s, instance + std::to_string(getpid())));
    return (uint8_t *)qz_shm_create(&id, 0x10201, 20);
}
} // namespace

TEST(Shm, ContentSurvivesReattachAndInstancesStayApart)
{
    rt_scratch s;
    int id_a = -1, id_b = -1, id_again = -1;
    uint8_t *p = attach(s, "shm-a-", id_a);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 20), std::vector<uint8_t>(20, 0)) << "a new segment is zero-filled";
    memcpy(p, "settings of a", 14);
    ASSERT_EQ(shmdt(p), 0); // the process ends without destroying it

    uint8_t *q = attach(s, "shm-b-", id_b);
    ASSERT_NE(q, nullptr);
    EXPECT_NE(id_b, id_a);
    EXPECT_EQ(q[0], 0) << "another instance must not see a's settings";
    EXPECT_EQ(qz_shm_destroy(id_b, q), 0);

    p = attach(s, "shm-a-", id_again);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(id_again, id_a);
    EXPECT_EQ(memcmp(p, "settings of a", 14), 0);
    EXPECT_EQ(qz_shm_destroy(id_again, p), 0);
    p = attach(s, "shm-a-", id_again); // destroyed: the next start begins from zero again
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 0);
    qz_shm_destroy(id_again, p);
}

TEST(Shm, BadArgumentsAndSizeMismatchFail)
{
    rt_scratch s;
    rt_cfg_set(rt_test_config(s, "shm-size-" + std::to_string(getpid())));
    int id = -1, id2 = -1;
    EXPECT_EQ(qz_shm_create(nullptr, 1, 20), nullptr);
    EXPECT_EQ(qz_shm_create(&id, 1, 0), nullptr);
    void *p = qz_shm_create(&id, 7, 20);
    ASSERT_NE(p, nullptr);
    // A bigger record under the same key is refused, not silently truncated.
    EXPECT_EQ(qz_shm_create(&id2, 7, 4096), nullptr);
    EXPECT_NE(rt_read_file(s.path("log")).find("shared memory key"), std::string::npos);
    qz_shm_destroy(id, p);
    EXPECT_NE(rt_shm_key(7), IPC_PRIVATE);
    EXPECT_NE(rt_shm_key(7), rt_shm_key(8));
}
