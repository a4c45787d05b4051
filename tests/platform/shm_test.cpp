// Shared memory: a segment per instance and key that keeps its content across
// detach and re-attach (a daemon restart), and starts zero-filled.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include "qz.h"
#include "rt_test_util.h"

namespace {
void use_instance(const rt_scratch &s, const std::string &name)
{
    rt_cfg_set(rt_test_config(s, name));
}
} // namespace

TEST(Shm, ContentSurvivesReattachAndInstancesStayApart)
{
    rt_scratch s;
    std::string a = "shm-a-" + std::to_string(getpid()), b = "shm-b-" + std::to_string(getpid());
    const int key = 0x10201;

    use_instance(s, a);
    int id_a = -1;
    uint8_t *p = (uint8_t *)qz_shm_create(&id_a, key, 20);
    ASSERT_NE(p, nullptr);
    ASSERT_GE(id_a, 0);
    for (int i = 0; i < 20; i++)
        ASSERT_EQ(p[i], 0) << "a new segment is zero-filled";
    memcpy(p, "settings of a", 14);
    ASSERT_EQ(shmdt(p), 0); // the process ends without destroying it

    use_instance(s, b);
    int id_b = -1;
    uint8_t *q = (uint8_t *)qz_shm_create(&id_b, key, 20);
    ASSERT_NE(q, nullptr);
    EXPECT_NE(id_b, id_a);
    EXPECT_EQ(q[0], 0) << "another instance must not see a's settings";
    EXPECT_EQ(qz_shm_destroy(id_b, q), 0);

    use_instance(s, a);
    int id_again = -1;
    p = (uint8_t *)qz_shm_create(&id_again, key, 20);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(id_again, id_a);
    EXPECT_EQ(memcmp(p, "settings of a", 14), 0);
    EXPECT_EQ(qz_shm_destroy(id_again, p), 0);

    // Destroyed: the next start begins from zero again.
    p = (uint8_t *)qz_shm_create(&id_again, key, 20);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 0);
    qz_shm_destroy(id_again, p);
}

TEST(Shm, KeysDependOnInstanceAndKeyAndAvoidPrivate)
{
    rt_scratch s;
    use_instance(s, "k1");
    int k1 = rt_shm_key(0x10201), k1b = rt_shm_key(0x10202);
    use_instance(s, "k2");
    int k2 = rt_shm_key(0x10201);
    EXPECT_NE(k1, k1b);
    EXPECT_NE(k1, k2);
    EXPECT_NE(k1, IPC_PRIVATE);
}

TEST(Shm, BadArgumentsAndSizeMismatchFail)
{
    rt_scratch s;
    use_instance(s, "shm-size-" + std::to_string(getpid()));
    int id = -1;
    EXPECT_EQ(qz_shm_create(nullptr, 1, 20), nullptr);
    EXPECT_EQ(qz_shm_create(&id, 1, 0), nullptr);
    void *p = qz_shm_create(&id, 7, 20);
    ASSERT_NE(p, nullptr);
    // A bigger record under the same key is refused, not silently truncated.
    int id2 = -1;
    EXPECT_EQ(qz_shm_create(&id2, 7, 4096), nullptr);
    EXPECT_NE(rt_read_file(s.path("log")).find("shared memory key"), std::string::npos);
    qz_shm_destroy(id, p);
}
