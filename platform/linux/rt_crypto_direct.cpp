// Cryptography linked in: nothing to load (tests, fuzz targets, benchmarks).
#include "rt_crypto.h"

bool rt_crypto_ready(std::string &) { return true; }
