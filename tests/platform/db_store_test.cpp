// The LMDB key-value store: records, reopening, limits, the instance's store
// directory, and refusal of files that are not our stores.
#include <lmdb.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <random>

#include "db_test_util.h"

namespace {

using Db = DbDir;
using kv_map = std::map<std::string, std::string>;

std::string key_of(int n)
{
    char k[12] = {};
    memcpy(k, &n, sizeof(n));
    k[8] = 1;
    return std::string(k, sizeof(k));
}

int put(qz_db_t *db, const std::string &k, const std::string &v)
{
    return qz_db_store(db, k.data(), (int)k.size(), v.data(), (int)v.size());
}

// Writes records into one of our stores behind the store's back, in one transaction.
void raw_put(const std::string &f, const kv_map &records)
{
    MDB_env *env;
    MDB_txn *txn;
    MDB_dbi dbi;
    ASSERT_EQ(mdb_env_create(&env), 0);
    mdb_env_set_maxdbs(env, 2);
    ASSERT_EQ(mdb_env_open(env, f.c_str(), MDB_NOSUBDIR, 0644), 0);
    ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
    ASSERT_EQ(mdb_dbi_open(txn, "qz_kv", 0, &dbi), 0);
    for (auto &[key, val] : records) {
        MDB_val mk{key.size(), (void *)key.data()}, mv{val.size(), (void *)val.data()};
        ASSERT_EQ(mdb_put(txn, dbi, &mk, &mv, 0), 0);
    }
    ASSERT_EQ(mdb_txn_commit(txn), 0);
    mdb_env_close(env);
}

kv_map *g_walk;
void collect(qz_db_t *db, const void *key, int klen)
{
    char buf[QZ_DB_VALUE_MAX];
    memset(buf, 0x5a, sizeof(buf));
    std::string k((const char *)key, (size_t)klen);
    ASSERT_EQ(qz_db_fetch_bykey(db, key, klen, buf), 0);
    size_t n = sizeof(buf);
    while (n > 0 && buf[n - 1] == 0x5a) // values in these tests never end in 'Z'
        n--;
    (*g_walk)[k] = std::string(buf, n);
}

kv_map contents(qz_db_t *db)
{
    kv_map m;
    g_walk = &m;
    EXPECT_EQ(qz_db_foreach(db, collect), 0);
    return m;
}

TEST_F(Db, RecordsSurviveReopenAndWalkInKeyOrder)
{
    std::string f = path("a.db");
    qz_db_t *db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(contents(db), kv_map{});
    kv_map model;
    for (int n : {5, 1, 300, 2}) {
        std::string v = "value-" + std::to_string(n);
        ASSERT_EQ(put(db, key_of(n), v), 0);
        model[key_of(n)] = v;
    }
    ASSERT_EQ(put(db, key_of(1), "replaced"), 0);
    model[key_of(1)] = "replaced";
    std::string k2 = key_of(2);
    ASSERT_EQ(qz_db_delete(db, k2.data(), 12), 0);
    model.erase(k2);
    EXPECT_EQ(qz_db_delete(db, k2.data(), 12), 0) << "absent key";
    char buf[QZ_DB_VALUE_MAX];
    EXPECT_LT(qz_db_fetch_bykey(db, k2.data(), 12, buf), 0);

    // Walk order is key-byte order.
    std::vector<std::string> order;
    g_walk = nullptr;
    static std::vector<std::string> *seen;
    seen = &order;
    qz_db_foreach(db, [](qz_db_t *, const void *k, int l) {
        seen->emplace_back((const char *)k, (size_t)l);
    });
    std::vector<std::string> sorted;
    for (auto &kv : model)
        sorted.push_back(kv.first);
    EXPECT_EQ(order, sorted);

    qz_db_close(db);
    db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(contents(db), model);
    qz_db_close(db);
    EXPECT_EQ(names(), (std::vector<std::string>{"a.db", "a.db-lock"}));
}

TEST_F(Db, WalkCallbackMayDeleteAndStore)
{
    qz_db_t *db = qz_db_open(path("w.db").c_str());
    ASSERT_NE(db, nullptr);
    for (int n = 0; n < 50; n++)
        put(db, key_of(n), "v");
    static int visits;
    visits = 0;
    qz_db_foreach(db, [](qz_db_t *d, const void *k, int l) {
        visits++;
        qz_db_delete(d, k, l);
        std::string extra = key_of(1000 + visits);
        put(d, extra, "new");
    });
    EXPECT_EQ(visits, 50);
    kv_map m = contents(db);
    EXPECT_EQ(m.size(), 50u);
    EXPECT_EQ(m.begin()->second, "new");
    qz_db_close(db);
}

TEST_F(Db, BadArgumentsAndOversizedValuesAreRefused)
{
    qz_db_t *db = qz_db_open(path("b.db").c_str());
    ASSERT_NE(db, nullptr);
    std::string k = key_of(1), big(QZ_DB_VALUE_MAX + 1, 'x');
    EXPECT_LT(qz_db_store(db, k.data(), 12, big.data(), (int)big.size()), 0);
    EXPECT_EQ(qz_db_store(db, k.data(), 12, big.data(), QZ_DB_VALUE_MAX), 0);
    EXPECT_LT(qz_db_store(db, k.data(), 0, "v", 1), 0);
    EXPECT_LT(qz_db_store(db, k.data(), 600, "v", 1), 0);
    EXPECT_LT(qz_db_store(nullptr, k.data(), 12, "v", 1), 0);
    EXPECT_LT(qz_db_fetch_bykey(nullptr, k.data(), 12, big.data()), 0);
    EXPECT_LT(qz_db_delete(db, nullptr, 12), 0);
    EXPECT_LT(qz_db_foreach(db, nullptr), 0);
    EXPECT_EQ(qz_db_open(nullptr), nullptr);
    EXPECT_EQ(qz_db_open(""), nullptr);
    EXPECT_EQ(qz_db_open((dir + "/").c_str()), nullptr);
    qz_db_close(db);

    // A longer value that got into the file some other way is not copied out.
    raw_put(path("b.db"), {{k, std::string(4000, 'h')}});
    db = qz_db_open(path("b.db").c_str());
    ASSERT_NE(db, nullptr);
    std::vector<char> buf(QZ_DB_VALUE_MAX + 16, 'G');
    EXPECT_LT(qz_db_fetch_bykey(db, k.data(), 12, buf.data()), 0);
    EXPECT_EQ(std::string(buf.begin(), buf.end()), std::string(buf.size(), 'G'));
    qz_db_close(db);
}

TEST_F(Db, OpeningTheSameFileTwiceSharesOneHandle)
{
    qz_db_t *a = qz_db_open(path("s.db").c_str());
    qz_db_t *b = qz_db_open((dir + "/./s.db").c_str());
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a, b);
    qz_db_close(b);
    EXPECT_EQ(put(a, key_of(1), "still open"), 0);
    qz_db_close(a);
}

TEST_F(Db, ZeroByteFileBecomesAnEmptyStore)
{
    std::string f = path("z.db");
    db_write_file(f, {});
    qz_db_t *db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(contents(db), kv_map{});
    EXPECT_EQ(put(db, key_of(3), "x"), 0);
    qz_db_close(db);
    db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(contents(db).size(), 1u);
    qz_db_close(db);
    EXPECT_EQ(names(), (std::vector<std::string>{"z.db", "z.db-lock"}));
}

TEST_F(Db, InstanceStoreDirHoldsTheFile)
{
    rt_config c = rt_cfg();
    c.store_dir = dir + "/inst/a";
    rt_cfg_set(c);
    std::string asked = "/tmp/db-not-used-" + std::to_string(getpid()) + "/t.db";
    EXPECT_EQ(qz_db_file(asked.c_str()), dir + "/inst/a/t.db");
    qz_db_t *db = qz_db_open(asked.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(put(db, key_of(1), "mine"), 0);
    qz_db_close(db);
    struct stat st;
    EXPECT_EQ(stat((dir + "/inst/a/t.db").c_str(), &st), 0);
    EXPECT_NE(stat(asked.c_str(), &st), 0);

    // Another instance, same daemon path: its own file.
    c.store_dir = dir + "/inst/b";
    rt_cfg_set(c);
    db = qz_db_open(asked.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(contents(db), kv_map{});
    qz_db_close(db);
    c.store_dir.clear();
    rt_cfg_set(c);
    EXPECT_EQ(qz_db_file("/tmp/db/t.db"), "/tmp/db/t.db");
}

// A foreign file is refused, stays byte for byte, and gets no lock or temporary
// file beside it.
void expect_refused(DbDir &t, const std::string &f)
{
    db_bytes before = db_read_file(f);
    auto names_before = t.names();
    EXPECT_EQ(qz_db_open(f.c_str()), nullptr);
    EXPECT_EQ(qz_db_open(f.c_str()), nullptr) << "still refused the second time";
    EXPECT_EQ(db_read_file(f), before);
    EXPECT_EQ(t.names(), names_before);
}

TEST_F(Db, ForeignFilesAreRefusedAndLeftUntouched)
{
    std::mt19937 rng(7);
    db_bytes garbage(20000);
    for (auto &b : garbage)
        b = (uint8_t)rng();
    db_write_file(path("garbage.db"), garbage);
    expect_refused(*this, path("garbage.db"));

    std::string text = "mac 00:11:22:33:44:55\noui 00:11:22\n";
    db_write_file(path("text.db"), db_bytes(text.begin(), text.end()));
    expect_refused(*this, path("text.db"));

    db_write_file(path("one.db"), db_bytes(1, 0));
    expect_refused(*this, path("one.db"));

    mkdir(path("dir.db").c_str(), 0755);
    EXPECT_EQ(qz_db_open(path("dir.db").c_str()), nullptr);

    // An LMDB file of some other program: no database of ours inside.
    {
        MDB_env *env;
        MDB_txn *txn;
        MDB_dbi dbi;
        ASSERT_EQ(mdb_env_create(&env), 0);
        ASSERT_EQ(mdb_env_open(env, path("other.db").c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0644),
                  0);
        ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
        ASSERT_EQ(mdb_dbi_open(txn, nullptr, 0, &dbi), 0);
        MDB_val k{5, (void *)"qz_kv"}, v{3, (void *)"abc"}; // even a plain key of that name
        ASSERT_EQ(mdb_put(txn, dbi, &k, &v, 0), 0);
        ASSERT_EQ(mdb_txn_commit(txn), 0);
        mdb_env_close(env);
    }
    expect_refused(*this, path("other.db"));
}

TEST_F(Db, TruncatedStoresAreRefusedAndLeftUntouched)
{
    std::string f = path("t.db");
    qz_db_t *db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    qz_db_close(db);
    kv_map many; // several pages of records
    for (int n = 0; n < 2000; n++)
        many[key_of(n)] = std::string(QZ_DB_VALUE_MAX, 'v');
    raw_put(f, many);
    unlink((f + "-lock").c_str());
    db_bytes whole = db_read_file(f);
    ASSERT_GT(whole.size(), 16u * 4096);

    for (size_t keep : {whole.size() - 4096, whole.size() / 2, (size_t)3 * 4096,
                        (size_t)2 * 4096 - 1, (size_t)4096, (size_t)100}) {
        SCOPED_TRACE("kept " + std::to_string(keep) + " bytes");
        db_write_file(f, db_bytes(whole.begin(), whole.begin() + (long)keep));
        expect_refused(*this, f);
    }
    // The whole file still opens with every record.
    db_write_file(f, whole);
    db = qz_db_open(f.c_str());
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(contents(db).size(), 2000u);
    qz_db_close(db);
}

} // namespace
