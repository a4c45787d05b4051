// The LMDB key-value store, and refusal of files that are not ours.
#include <lmdb.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "db_test_util.h"

namespace {

using Db = DbDir;
using kv_map = std::map<std::string, std::string>;
using kv_list = std::vector<std::pair<std::string, std::string>>;
namespace fs = std::filesystem;

std::string key_of(int n)
{
    char k[12] = {1};
    memcpy(k + 4, &n, sizeof(n));
    return std::string(k, sizeof(k));
}

int put(qz_db_t *db, const std::string &k, const std::string &v)
{
    return qz_db_store(db, k.data(), (int)k.size(), v.data(), (int)v.size());
}

// Records in walk order; every value is fetched as 16 bytes.
kv_list *g_walk;
kv_list contents(qz_db_t *db)
{
    kv_list out;
    g_walk = &out;
    EXPECT_EQ(qz_db_foreach(db, [](qz_db_t *d, const void *k, int l) {
                  char v[QZ_DB_VALUE_MAX] = {};
                  EXPECT_EQ(qz_db_fetch_bykey(d, k, l, v), 0);
                  g_walk->emplace_back(std::string((const char *)k, (size_t)l), std::string(v, 16));
              }),
              0);
    return out;
}

// Writes records behind the store's back into the named database (null: the main one).
void raw_put(const std::string &f, const kv_map &records, const char *name = "qz_kv")
{
    MDB_env *env;
    MDB_txn *txn;
    MDB_dbi dbi;
    ASSERT_EQ(mdb_env_create(&env), 0);
    mdb_env_set_maxdbs(env, 2);
    ASSERT_EQ(mdb_env_open(env, f.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0644), 0);
    ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
    ASSERT_EQ(mdb_dbi_open(txn, name, 0, &dbi), 0);
    for (auto &[key, val] : records) {
        MDB_val mk{key.size(), (void *)key.data()}, mv{val.size(), (void *)val.data()};
        ASSERT_EQ(mdb_put(txn, dbi, &mk, &mv, 0), 0);
    }
    ASSERT_EQ(mdb_txn_commit(txn), 0);
    mdb_env_close(env);
}

// A foreign file is refused twice, stays byte for byte, and gets nothing beside it.
void expect_refused(const std::string &dir, const std::string &f)
{
    std::string before = rt_read_file(f);
    auto entries = std::distance(fs::directory_iterator(dir), {});
    EXPECT_EQ(qz_db_open(f.c_str()), nullptr);
    EXPECT_EQ(qz_db_open(f.c_str()), nullptr);
    EXPECT_EQ(rt_read_file(f), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), entries);
}

TEST_F(Db, RecordsSurviveReopenAndWalkInKeyOrder)
{
    std::string f = path("a.db");
    qz_db_t *db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(qz_db_open((dir + "/./a.db").c_str()), db) << "one handle per file";
    qz_db_close(db);
    for (int n : {5, 1, 300, 2})
        ASSERT_EQ(put(db, key_of(n), std::string(16, (char)('a' + n % 26))), 0);
    ASSERT_EQ(put(db, key_of(1), std::string(16, 'R')), 0);
    std::string k2 = key_of(2);
    ASSERT_EQ(qz_db_delete(db, k2.data(), 12), 0);
    EXPECT_EQ(qz_db_delete(db, k2.data(), 12), 0) << "absent key";
    char buf[QZ_DB_VALUE_MAX];
    EXPECT_LT(qz_db_fetch_bykey(db, k2.data(), 12, buf), 0);
    qz_db_close(db);

    db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    kv_list expect = {{key_of(1), std::string(16, 'R')},
                      {key_of(5), std::string(16, 'f')},
                      {key_of(300), std::string(16, 'o')}};
    EXPECT_EQ(contents(db), expect);
    qz_db_close(db);
}

TEST_F(Db, LimitsAndBadArguments)
{
    qz_db_t *db = qz_db_open(path("b.db").c_str());
    ASSERT_NE(db, nullptr);
    std::string k = key_of(1), big(QZ_DB_VALUE_MAX + 1, 'x');
    EXPECT_LT(qz_db_store(db, k.data(), 12, big.data(), (int)big.size()), 0);
    EXPECT_EQ(qz_db_store(db, k.data(), 12, big.data(), QZ_DB_VALUE_MAX), 0);
    EXPECT_LT(qz_db_store(db, k.data(), 600, "v", 1), 0);
    EXPECT_EQ(qz_db_open((dir + "/").c_str()), nullptr);
    qz_db_close(db);

    // A longer value that got into the file by other means is not copied out.
    raw_put(path("b.db"), {{k, std::string(4000, 'h')}});
    db = qz_db_open(path("b.db").c_str());
    ASSERT_NE(db, nullptr);
    std::string out(QZ_DB_VALUE_MAX + 16, 'G');
    EXPECT_LT(qz_db_fetch_bykey(db, k.data(), 12, out.data()), 0);
    EXPECT_EQ(out, std::string(out.size(), 'G'));
    qz_db_close(db);
}

TEST_F(Db, ForeignAndTruncatedFilesAreRefusedAndLeftUntouched)
{
    std::ofstream(path("garbage.db")) << std::string(20000, '\x5a') + "\x01\xde\xc0\xef\xbe";
    std::ofstream(path("text.db")) << "mac 00:11:22:33:44:55\noui 00:11:22\n";
    raw_put(path("other.db"), {{"qz_kv", "abc"}}, nullptr); // another program's, our name
    for (const char *f : {"garbage.db", "text.db", "other.db"})
        expect_refused(dir, path(f));
    fs::create_directory(path("dir.db"));
    EXPECT_EQ(qz_db_open(path("dir.db").c_str()), nullptr);

    std::string f = path("t.db");
    qz_db_close(qz_db_open(f.c_str()));
    kv_map many; // several pages of records
    for (int n = 0; n < 2000; n++)
        many[key_of(n)] = std::string(QZ_DB_VALUE_MAX, 'v');
    raw_put(f, many);
    fs::remove(f + "-lock");
    std::string whole = rt_read_file(f);
    ASSERT_GT(whole.size(), 16u * 4096);
    for (size_t keep : {whole.size() - 4096, whole.size() / 2, (size_t)3 * 4096,
                        (size_t)2 * 4096 - 1, (size_t)4096, (size_t)1}) {
        SCOPED_TRACE("kept " + std::to_string(keep) + " bytes");
        std::ofstream(f) << whole.substr(0, keep);
        expect_refused(dir, f);
    }
    // Zero bytes is not truncation: it becomes an empty store.
    for (const std::string &bytes : {whole, std::string()}) {
        std::ofstream(f) << bytes;
        qz_db_t *db = qz_db_open(f.c_str());
        ASSERT_NE(db, nullptr);
        EXPECT_EQ(contents(db).size(), bytes.empty() ? 0u : 2000u);
        qz_db_close(db);
    }
}

// Another user who can change the store's directory or plant links in it could read
// the tracked stations or make the daemon write where it should not.
TEST_F(Db, FilesOthersCouldTouchAreRefusedAndOursArePrivate)
{
    std::string f = path("t.db");
    qz_db_close(qz_db_open(f.c_str()));
    for (const std::string &p : {f, f + "-lock"}) {
        struct stat st;
        ASSERT_EQ(stat(p.c_str(), &st), 0) << p;
        EXPECT_EQ(st.st_mode & 07777, 0600u) << p;
    }
    chmod(f.c_str(), 0644); // left so by an older version: narrowed on open
    qz_db_close(qz_db_open(f.c_str()));
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // A planted lock file link: refused, its target untouched.
    std::string victim = path("victim"), g = path("g.db");
    std::ofstream(victim) << "root's file";
    ASSERT_EQ(symlink(victim.c_str(), (g + "-lock").c_str()), 0);
    EXPECT_EQ(qz_db_open(g.c_str()), nullptr);
    EXPECT_EQ(rt_read_file(victim), "root's file");
    EXPECT_FALSE(fs::exists(g));
    ASSERT_EQ(symlink(f.c_str(), path("h.db").c_str()), 0); // the store itself a link
    EXPECT_EQ(qz_db_open(path("h.db").c_str()), nullptr);

    // A directory others may write, or another user's.
    std::string open_dir = path("open"), theirs = path("theirs");
    fs::create_directory(open_dir);
    chmod(open_dir.c_str(), 0777);
    EXPECT_EQ(qz_db_open((open_dir + "/t.db").c_str()), nullptr);
    if (geteuid() == 0) {
        fs::create_directory(theirs);
        chmod(theirs.c_str(), 0700);
        ASSERT_EQ(chown(theirs.c_str(), 65534, 65534), 0);
        EXPECT_EQ(qz_db_open((theirs + "/t.db").c_str()), nullptr);
        EXPECT_TRUE(fs::is_empty(theirs));
    }
    EXPECT_TRUE(fs::is_empty(open_dir));
}

} // namespace
