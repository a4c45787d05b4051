// Threads: creation with optional scheduling and stack size, and real-time priority
// that degrades to a warning where the user may not have it.
#include "qz_tpa.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <syslog.h>

#include "rt_log.h"
#include "rt_process.h"

namespace {
// New threads never take SIGTERM/SIGINT: the signal thread waits for them.
struct sig_block {
    sigset_t old;
    sig_block()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGINT);
        pthread_sigmask(SIG_BLOCK, &set, &old);
    }
    ~sig_block() { pthread_sigmask(SIG_SETMASK, &old, nullptr); }
};

const char *policy_name(int policy)
{
    return policy == SCHED_FIFO ? "SCHED_FIFO" : policy == SCHED_RR ? "SCHED_RR" : "SCHED_OTHER";
}
} // namespace

int rt_thread_create(pthread_t *thread, void *(*fn)(void *), void *arg, const char *name,
                     size_t stack)
{
    sig_block b;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stack < size_t(PTHREAD_STACK_MIN) ? size_t(PTHREAD_STACK_MIN) : stack);
    int rc = pthread_create(thread, &attr, fn, arg);
    pthread_attr_destroy(&attr);
    if (rc == 0 && name)
        pthread_setname_np(*thread, name);
    return rc;
}

int qz_pthread_create(pthread_t *thread, qz_thread_fn fn, void *arg, int prio, int policy,
                      int stack)
{
    if (!thread || !fn)
        return EINVAL;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // 0 (the daemon's start-up thread asks no size): the runtime's own threads' size,
    // not the 8 MiB of address space the system would reserve.
    size_t want = stack > 0 ? size_t(stack) : RT_STACK_DAEMON;
    pthread_attr_setstacksize(&attr, want < size_t(PTHREAD_STACK_MIN) ? size_t(PTHREAD_STACK_MIN) : want);
    bool sched = policy == SCHED_FIFO || policy == SCHED_RR;
    if (sched) {
        sched_param sp{};
        sp.sched_priority = prio;
        pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attr, policy);
        pthread_attr_setschedparam(&attr, &sp);
    }
    sig_block b;
    int rc = pthread_create(thread, &attr, fn, arg);
    if (rc == EPERM && sched) {
        rt_log(LOG_WARNING, "no permission for %s priority %d: thread runs with normal priority",
               policy_name(policy), prio);
        pthread_attr_setinheritsched(&attr, PTHREAD_INHERIT_SCHED);
        rc = pthread_create(thread, &attr, fn, arg);
    }
    pthread_attr_destroy(&attr);
    if (rc != 0)
        rt_log(LOG_ERR, "thread creation failed: %s", strerror(rc));
    return rc;
}

int qz_pthread_setschedparam(pthread_t thread, int policy, int prio)
{
    sched_param sp{};
    sp.sched_priority = prio;
    int rc = pthread_setschedparam(thread, policy, &sp);
    if (rc == 0)
        return 0;
    if (rc == EPERM) {
        // An unprivileged user runs the daemon with normal priorities.
        rt_log(LOG_WARNING, "no permission for %s priority %d: thread keeps normal priority",
               policy_name(policy), prio);
        return 0;
    }
    rt_log(LOG_ERR, "%s priority %d: %s", policy_name(policy), prio, strerror(rc));
    return -1;
}
