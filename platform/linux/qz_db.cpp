// Key-value store on LMDB: one file per store, every change a synchronous commit, and
// a file that is not one of our stores is refused and never written.
#include <errno.h>
#include <fcntl.h>
#include <lmdb.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "db_store.h"
#include "rt_config.h"
#include "rt_log.h"
#include "rt_process.h"

struct qz_db {
    MDB_env *env;
    MDB_dbi dbi;
    std::string file;
    dev_t dev;
    ino_t ino;
    pid_t pid; // an environment is never used across fork()
    int refs;
};

namespace {

// Our records live in this named database. Its presence is what marks a file as one
// of our stores: a bare LMDB file of another program lacks it.
constexpr const char *kv_name = "qz_kv";
constexpr size_t map_size = 16u << 20; // address space only; the file grows as needed
constexpr mode_t file_mode = 0600; // the tracked MACs are nobody else's business

std::mutex g_mu; // the table of open handles, and creation
std::vector<qz_db *> g_open;

struct env_ptr {
    MDB_env *e = nullptr;
    ~env_ptr()
    {
        if (e)
            mdb_env_close(e);
    }
    MDB_env *release()
    {
        MDB_env *r = e;
        e = nullptr;
        return r;
    }
};

struct txn_ptr {
    MDB_txn *t = nullptr;
    ~txn_ptr()
    {
        if (t)
            mdb_txn_abort(t);
    }
    int commit()
    {
        int rc = mdb_txn_commit(t);
        t = nullptr;
        return rc;
    }
};

int env_new(env_ptr &env)
{
    int rc = mdb_env_create(&env.e);
    if (rc == 0)
        rc = mdb_env_set_maxdbs(env.e, 2);
    if (rc == 0)
        rc = mdb_env_set_mapsize(env.e, map_size);
    return rc;
}

// A read or write transaction; a map grown by another process is adopted once.
int txn_begin(qz_db *db, unsigned flags, txn_ptr &txn)
{
    int rc = mdb_txn_begin(db->env, nullptr, flags, &txn.t);
    if (rc == MDB_MAP_RESIZED && mdb_env_set_mapsize(db->env, 0) == 0)
        rc = mdb_txn_begin(db->env, nullptr, flags, &txn.t);
    if (rc)
        txn.t = nullptr;
    return rc;
}

void fsync_dir_of(const std::string &file)
{
    size_t slash = file.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

int mkdirs(const std::string &dir)
{
    for (size_t pos = 1; pos <= dir.size(); pos++) {
        if (pos < dir.size() && dir[pos] != '/')
            continue;
        std::string part = dir.substr(0, pos);
        if (mkdir(part.c_str(), 0700) < 0 && errno != EEXIST)
            return -1;
    }
    return 0;
}

// Builds a complete, empty store beside file and moves it into place in one step, so
// that a process killed while creating leaves either no store or a whole one (LMDB
// alone would leave a file without our database if killed between its first two
// writes). With replace_empty the new store takes the place of a 0-byte file;
// otherwise a file that appeared meanwhile is kept and checked like any other.
int create_store(const std::string &file, bool replace_empty)
{
    std::string tmp = file + ".new";
    unlink(tmp.c_str()); // left by a creation that was cut short
    {
        env_ptr env;
        int rc = env_new(env);
        if (rc == 0)
            rc = mdb_env_open(env.e, tmp.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, file_mode);
        txn_ptr txn;
        if (rc == 0)
            rc = mdb_txn_begin(env.e, nullptr, 0, &txn.t);
        MDB_dbi dbi;
        if (rc == 0)
            rc = mdb_dbi_open(txn.t, kv_name, MDB_CREATE, &dbi);
        if (rc == 0)
            rc = txn.commit(); // synchronous: the new file is on disk
        if (rc) {
            rt_log(LOG_ERR, "store %s: cannot create: %s\n", file.c_str(), mdb_strerror(rc));
            unlink(tmp.c_str());
            return -1;
        }
    }
    int rc;
    if (replace_empty) {
        struct stat st;
        rc = stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0
                 ? rename(tmp.c_str(), file.c_str())
                 : 0; // no longer empty: leave it to the check
    } else {
        rc = link(tmp.c_str(), file.c_str());
        if (rc < 0 && errno == EEXIST)
            rc = 0;
    }
    int err = errno;
    unlink(tmp.c_str());
    if (rc < 0) {
        rt_log(LOG_ERR, "store %s: cannot create: %s\n", file.c_str(), strerror(err));
        return -1;
    }
    fsync_dir_of(file);
    return 0;
}

// Whether an existing, non-empty file is one of our stores. It is opened read-only
// and without a lock file, so nothing on disk changes. Returns "" when it is ours,
// else why not.
std::string check_ours(const std::string &file, off_t size)
{
    env_ptr env;
    int rc = env_new(env);
    if (rc == 0)
        rc = mdb_env_open(env.e, file.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0);
    if (rc)
        return std::string("not an LMDB file (") + mdb_strerror(rc) + ")";
    // A file cut short would fault when its missing pages are read: check the size
    // against the last page the newest commit uses before any page is touched.
    MDB_envinfo info;
    MDB_stat st;
    mdb_env_info(env.e, &info);
    mdb_env_stat(env.e, &st);
    unsigned long long need = (unsigned long long)(info.me_last_pgno + 1) * st.ms_psize;
    if ((unsigned long long)size < need)
        return "truncated (" + std::to_string(size) + " of " + std::to_string(need) + " bytes)";
    txn_ptr txn;
    rc = mdb_txn_begin(env.e, nullptr, MDB_RDONLY, &txn.t);
    if (rc)
        return std::string("unreadable (") + mdb_strerror(rc) + ")";
    MDB_dbi dbi;
    rc = mdb_dbi_open(txn.t, kv_name, 0, &dbi);
    if (rc)
        return std::string("an LMDB file of another program (") + mdb_strerror(rc) + ")";
    return "";
}

qz_db *shared_handle(const struct stat &st)
{
    for (qz_db *db : g_open)
        if (db->pid == getpid() && db->dev == st.st_dev && db->ino == st.st_ino)
            return db;
    return nullptr;
}

bool key_ok(qz_db *db, const void *key, int klen)
{
    return db && key && klen > 0 && klen <= mdb_env_get_maxkeysize(db->env);
}

// LMDB opens its files itself, following links: before it does, the directory must be
// ours alone (so nothing can be swapped in later) and the files in it plain files of
// ours. Checks only, or with take (just before opening) makes the lock file without
// following a link and narrows both files to 0600: a refused file stays untouched.
std::string secure_files(const std::string &file, bool take)
{
    size_t slash = file.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
    std::string why;
    if (!rt_dir_private(dir, why))
        return "directory " + dir + " " + why;
    const std::pair<std::string, int> files[] = {{file, 0}, {file + "-lock", take ? O_CREAT : 0}};
    for (auto &[f, create] : files) {
        int fd =
            open(f.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | create, file_mode);
        if (fd < 0) {
            if (errno == ENOENT)
                continue; // the store itself is created later, 0600 by LMDB
            return f + ": " + (errno == ELOOP ? "is a symbolic link" : strerror(errno));
        }
        struct stat st;
        std::string bad;
        if (fstat(fd, &st) != 0)
            bad = strerror(errno);
        else if (!S_ISREG(st.st_mode))
            bad = "not a regular file";
        else if (st.st_uid != geteuid())
            bad = "owned by uid " + std::to_string(st.st_uid);
        else if (take && (st.st_mode & 077) && fchmod(fd, file_mode) != 0)
            bad = std::string("chmod: ") + strerror(errno);
        close(fd);
        if (!bad.empty())
            return f + ": " + bad;
    }
    return "";
}

} // namespace

std::string qz_db_file(const char *path)
{
    const std::string &dir = rt_cfg().store_dir;
    if (dir.empty())
        return path;
    std::string p = path;
    size_t slash = p.rfind('/');
    return dir + "/" + (slash == std::string::npos ? p : p.substr(slash + 1));
}

qz_db_t *qz_db_open(const char *path)
{
    if (!path || !*path || path[strlen(path) - 1] == '/') {
        rt_log(LOG_ERR, "store: bad path \"%s\"\n", path ? path : "(null)");
        return nullptr;
    }
    std::string file = qz_db_file(path);
    if (!rt_cfg().store_dir.empty() && mkdirs(rt_cfg().store_dir) < 0) {
        rt_log(LOG_ERR, "store %s: cannot create directory %s: %s\n", file.c_str(),
               rt_cfg().store_dir.c_str(), strerror(errno));
        return nullptr;
    }

    std::lock_guard g(g_mu);
    if (std::string why = secure_files(file, false); !why.empty()) {
        rt_log(LOG_ERR, "store %s: refused: %s\n", file.c_str(), why.c_str());
        return nullptr;
    }
    struct stat st;
    if (stat(file.c_str(), &st) < 0) {
        if (errno != ENOENT) {
            rt_log(LOG_ERR, "store %s: %s\n", file.c_str(), strerror(errno));
            return nullptr;
        }
        if (create_store(file, false) < 0)
            return nullptr;
    } else if (S_ISREG(st.st_mode) && st.st_size == 0 && !shared_handle(st)) {
        // A 0-byte file holds nobody's data: it is what an interrupted creation or a
        // power cut before the first write leaves behind, or a placeholder made with
        // touch. It becomes an empty store rather than keeping the daemon from starting.
        if (create_store(file, true) < 0)
            return nullptr;
    }
    if (stat(file.c_str(), &st) < 0) {
        rt_log(LOG_ERR, "store %s: %s\n", file.c_str(), strerror(errno));
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        rt_log(LOG_ERR, "store %s: refused: not a regular file\n", file.c_str());
        return nullptr;
    }
    if (qz_db *db = shared_handle(st)) {
        db->refs++;
        return db;
    }
    std::string why = check_ours(file, st.st_size);
    if (!why.empty()) {
        rt_log(LOG_ERR, "store %s: refused, left untouched: %s\n", file.c_str(), why.c_str());
        return nullptr;
    }
    if (why = secure_files(file, true); !why.empty()) {
        rt_log(LOG_ERR, "store %s: refused: %s\n", file.c_str(), why.c_str());
        return nullptr;
    }

    // Default flags: every commit is written and synced before it returns.
    env_ptr env;
    int rc = env_new(env);
    if (rc == 0)
        rc = mdb_env_open(env.e, file.c_str(), MDB_NOSUBDIR | MDB_NOTLS, file_mode);
    if (rc == 0) {
        int dead;
        mdb_reader_check(env.e, &dead); // reader slots of killed processes
    }
    MDB_dbi dbi = 0;
    {
        txn_ptr txn;
        if (rc == 0)
            rc = mdb_txn_begin(env.e, nullptr, MDB_RDONLY, &txn.t);
        if (rc == 0)
            rc = mdb_dbi_open(txn.t, kv_name, 0, &dbi);
        if (rc == 0)
            rc = txn.commit(); // keeps dbi for later transactions
    }
    if (rc) {
        rt_log(LOG_ERR, "store %s: cannot open: %s\n", file.c_str(), mdb_strerror(rc));
        return nullptr;
    }
    qz_db *db = new qz_db{env.release(), dbi, file, st.st_dev, st.st_ino, getpid(), 1};
    g_open.push_back(db);
    return db;
}

void qz_db_close(qz_db_t *db)
{
    if (!db)
        return;
    std::lock_guard g(g_mu);
    if (--db->refs > 0)
        return;
    std::erase(g_open, db);
    if (db->pid == getpid())
        mdb_env_close(db->env);
    delete db;
}

// The keys are read in one transaction and the callback runs after it ended, in key
// order, so that it may fetch, store or delete freely; a key that the callback
// deleted meanwhile is still handed out.
int qz_db_foreach(qz_db_t *db, qz_db_walk_cb cb)
{
    if (!db || !cb)
        return -1;
    std::vector<std::string> keys;
    {
        txn_ptr txn;
        int rc = txn_begin(db, MDB_RDONLY, txn);
        MDB_cursor *cur = nullptr;
        if (rc == 0)
            rc = mdb_cursor_open(txn.t, db->dbi, &cur);
        if (rc) {
            rt_log(LOG_ERR, "store %s: walk: %s\n", db->file.c_str(), mdb_strerror(rc));
            return -1;
        }
        MDB_val k, v;
        for (rc = mdb_cursor_get(cur, &k, &v, MDB_FIRST); rc == 0;
             rc = mdb_cursor_get(cur, &k, &v, MDB_NEXT))
            keys.emplace_back((const char *)k.mv_data, k.mv_size);
        mdb_cursor_close(cur);
        if (rc != MDB_NOTFOUND) {
            rt_log(LOG_ERR, "store %s: walk: %s\n", db->file.c_str(), mdb_strerror(rc));
            return -1;
        }
    }
    for (const std::string &k : keys)
        cb(db, k.data(), (int)k.size());
    return 0;
}

int qz_db_fetch_bykey(qz_db_t *db, const void *key, int klen, void *buf)
{
    if (!key_ok(db, key, klen) || !buf)
        return -1;
    txn_ptr txn;
    int rc = txn_begin(db, MDB_RDONLY, txn);
    MDB_val k{(size_t)klen, (void *)key}, v;
    if (rc == 0)
        rc = mdb_get(txn.t, db->dbi, &k, &v);
    if (rc == MDB_NOTFOUND)
        return -1;
    if (rc) {
        rt_log(LOG_ERR, "store %s: fetch: %s\n", db->file.c_str(), mdb_strerror(rc));
        return -1;
    }
    // The caller's buffer has no size: a value longer than any we store is refused
    // rather than copied.
    if (v.mv_size > QZ_DB_VALUE_MAX) {
        rt_log(LOG_ERR, "store %s: fetch: value of %d bytes refused (at most %d)\n",
               db->file.c_str(), (int)v.mv_size, QZ_DB_VALUE_MAX);
        return -1;
    }
    memcpy(buf, v.mv_data, v.mv_size);
    return 0;
}

int qz_db_store(qz_db_t *db, const void *key, int klen, const void *val, int vlen)
{
    if (!key_ok(db, key, klen) || vlen < 0 || vlen > QZ_DB_VALUE_MAX || (vlen && !val))
        return -1;
    txn_ptr txn;
    int rc = txn_begin(db, 0, txn);
    MDB_val k{(size_t)klen, (void *)key}, v{(size_t)vlen, (void *)val};
    if (rc == 0)
        rc = mdb_put(txn.t, db->dbi, &k, &v, 0);
    if (rc == 0)
        rc = txn.commit();
    if (rc) {
        rt_log(LOG_ERR, "store %s: store: %s\n", db->file.c_str(), mdb_strerror(rc));
        return -1;
    }
    return 0;
}

// Deleting an absent key succeeds: afterwards the key is absent either way.
int qz_db_delete(qz_db_t *db, const void *key, int klen)
{
    if (!key_ok(db, key, klen))
        return -1;
    txn_ptr txn;
    int rc = txn_begin(db, 0, txn);
    MDB_val k{(size_t)klen, (void *)key};
    if (rc == 0)
        rc = mdb_del(txn.t, db->dbi, &k, nullptr);
    if (rc == MDB_NOTFOUND)
        return 0;
    if (rc == 0)
        rc = txn.commit();
    if (rc) {
        rt_log(LOG_ERR, "store %s: delete: %s\n", db->file.c_str(), mdb_strerror(rc));
        return -1;
    }
    return 0;
}
