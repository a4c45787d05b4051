// The process: its threads, its readiness and its private runtime directory.
#pragma once
#include <pthread.h>
#include <stddef.h>

#include <string>

// Starts a thread with SIGTERM/SIGINT blocked, a name (ps, gdb) and a stack of the
// given size (each caller says why its size). 0 or an errno.
int rt_thread_create(pthread_t *thread, void *(*fn)(void *), void *arg, const char *name,
                     size_t stack);
// Stacks of the runtime's threads. At full load (512 stations x 64 readings, both big
// shows) no thread touched more than 16 KiB of its stack; sanitizer builds need
// several times more for their redzones.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t RT_STACK_SCALE = 8;
#else
constexpr size_t RT_STACK_SCALE = 1;
#endif
// Threads that run the daemon's handlers or a transport's handshake (event, timer,
// CLI agent, service loop, server channel, capture): eight times the deepest measured.
constexpr size_t RT_STACK_DAEMON = (128 << 10) * RT_STACK_SCALE;
// The signal thread: sigwait and one log line.
constexpr size_t RT_STACK_SIGNAL = (32 << 10) * RT_STACK_SCALE;

// Tells the process that started a detached daemon that the start worked (once).
void rt_daemon_ready();
// The System V key that qz_shm_create uses for key in this instance.
int rt_shm_key(int key);
// Readiness parts: the driver library is open; the event thread is in its loop.
bool rt_dcd_opened();
bool rt_event_running();
// Radios whose tracking switch is on, out of all configured radios.
void rt_dcd_tracking(int &on, int &total);

// Path of a socket or file of this instance under runtime_dir (creates runtime_dir).
// A runtime_dir that another user could change ends the process with status 1.
std::string rt_runtime_path(const char *name);
// Whether dir is a real directory (no symbolic link) that only this user can change:
// owned by the effective uid and not writable by group or others. why says what is not.
bool rt_dir_private(const std::string &dir, std::string &why);
