// Placeholder until this service lands: every call fails.
#include "qz_top.h"
int qz_pmpt_timer_init(int) { return -1; }
qz_pmpt_timer_t *qz_pmpt_timer_create(qz_pmpt_timer_cb, void *) { return nullptr; }
int qz_pmpt_timer_start(qz_pmpt_timer_t *, unsigned int) { return -1; }
int qz_pmpt_timer_stop(qz_pmpt_timer_t *) { return -1; }
int qz_pmpt_timer_delete(qz_pmpt_timer_t *) { return -1; }
int qz_pmpt_timer_time2fire(qz_pmpt_timer_t *) { return -1; }
