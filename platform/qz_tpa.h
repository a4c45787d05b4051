// Thread and process adaptation library.
#pragma once
#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void *(*qz_thread_fn)(void *arg);

// 0 on success, else an error code. prio, policy and stack 0: defaults.
int qz_pthread_create(pthread_t *thread, qz_thread_fn fn, void *arg, int prio, int policy,
                      int stack);
// Negative on failure.
int qz_pthread_setschedparam(pthread_t thread, int policy, int prio);

#ifdef __cplusplus
}
#endif
