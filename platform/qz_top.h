// Timer library: one-shot timers whose expiry runs on the timer service's thread.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qz_pmpt_timer qz_pmpt_timer_t;
// Expiry callback: the timer and the argument given at creation.
typedef void (*qz_pmpt_timer_cb)(qz_pmpt_timer_t *t, void *arg);

// Once per process, before any timer is created. Negative on failure.
int qz_pmpt_timer_init(int flags);
// Null on failure.
qz_pmpt_timer_t *qz_pmpt_timer_create(qz_pmpt_timer_cb cb, void *arg);
// Arms the timer once, seconds from now; re-arms an armed timer.
int qz_pmpt_timer_start(qz_pmpt_timer_t *t, unsigned int seconds);
int qz_pmpt_timer_stop(qz_pmpt_timer_t *t);
// Safe while an expiry is pending or running.
int qz_pmpt_timer_delete(qz_pmpt_timer_t *t);
// Whole seconds until expiry; negative when not armed.
int qz_pmpt_timer_time2fire(qz_pmpt_timer_t *t);

#ifdef __cplusplus
}
#endif
