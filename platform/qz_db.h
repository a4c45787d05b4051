// Key-value store: one crash-safe database file per handle.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qz_db qz_db_t;
// Longest value the store keeps: longer values are refused by store and fetch.
#define QZ_DB_VALUE_MAX 64
typedef void (*qz_db_walk_cb)(qz_db_t *db, const void *key, int klen);

// Opens or creates the store at path; null on failure.
qz_db_t *qz_db_open(const char *path);
// Calls cb once per record. Negative on failure.
int qz_db_foreach(qz_db_t *db, qz_db_walk_cb cb);
// Copies the record's value to buf, which must hold the stored value (at most
// QZ_DB_VALUE_MAX bytes); negative when the key is absent or the value is longer.
int qz_db_fetch_bykey(qz_db_t *db, const void *key, int klen, void *buf);
// Adds or replaces a record.
int qz_db_store(qz_db_t *db, const void *key, int klen, const void *val, int vlen);
int qz_db_delete(qz_db_t *db, const void *key, int klen);

#ifdef __cplusplus
}
#endif
