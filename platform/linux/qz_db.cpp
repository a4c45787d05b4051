// Placeholder until this service lands: every call fails.
#include "qz_db.h"
qz_db_t *qz_db_open(const char *) { return nullptr; }
int qz_db_foreach(qz_db_t *, qz_db_walk_cb) { return -1; }
int qz_db_fetch_bykey(qz_db_t *, const void *, int, void *) { return -1; }
int qz_db_store(qz_db_t *, const void *, int, const void *, int) { return -1; }
int qz_db_delete(qz_db_t *, const void *, int) { return -1; }
