// The runtime's service loop: one thread waits (epoll) on the descriptors that the
// runtime's services register and runs each one's handler there; timers are timerfds
// on the same loop. Services that only react to their descriptors share it instead
// of each keeping a thread that sleeps in its own poll.
#pragma once
#include <stddef.h>
#include <stdint.h>

// events: EPOLLIN / EPOLLOUT (level-triggered); the handler gets what happened.
typedef void (*rt_loop_fn)(void *arg, uint32_t events);

// Registers fd; fn(arg, revents) runs on the loop thread while fd is ready for events
// (level-triggered: fn must consume what is there; fd should be non-blocking). The
// thread starts with the first descriptor and ends with the runtime (it is recorded
// with the runtime's services). 0, or -1 when fd is bad, already registered, or the
// loop cannot start (logged).
int rt_loop_add(int fd, uint32_t events, rt_loop_fn fn, void *arg);
// Changes what fd waits for (0: nothing for now). -1 when fd is not registered.
int rt_loop_set(int fd, uint32_t events);
// Once this returns, fn runs no more for fd (it may be called from fn itself, or from
// any handler on the loop). It waits for a running fn of fd: hold no lock fn takes.
void rt_loop_remove(int fd);
// True on the loop thread.
bool rt_loop_on_thread();

// A one-shot timer on the loop: a timerfd whose fn(arg, 0) runs on the loop thread
// when it fires. Returns the timer's descriptor, or -1 (logged).
int rt_loop_timer_open(rt_loop_fn fn, void *arg);
// Fires once ms from now (0: at the next turn); a negative ms disarms. Re-arming
// replaces the previous deadline.
void rt_loop_timer_set(int timer, int64_t ms);
// Unregisters (as rt_loop_remove) and closes the timer.
void rt_loop_timer_close(int timer);
