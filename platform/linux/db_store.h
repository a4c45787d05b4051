// Runtime-side extras of the key-value store: where a store file lives, and closing
// a handle (the daemon keeps its store open for the life of the process).
#pragma once
#include <string>

#include "qz_db.h"

// The file that holds the store named path: path itself, or, when the instance has a
// store_dir, that directory with path's base name.
std::string qz_db_file(const char *path);
// Releases a handle of qz_db_open. Opening a file that this process already has open
// returns the same handle; the last close closes it.
void qz_db_close(qz_db_t *db);
