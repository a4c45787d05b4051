// Placeholder until this service lands: every call fails.
#include "qz_tpa.h"
int qz_pthread_create(pthread_t *, qz_thread_fn, void *, int, int, int) { return 11; }
int qz_pthread_setschedparam(pthread_t, int, int) { return -1; }
