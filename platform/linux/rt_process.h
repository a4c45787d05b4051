// The process: its threads, its readiness and its private runtime directory.
#pragma once
#include <pthread.h>

#include <string>

// Starts a thread with SIGTERM/SIGINT blocked and a name (ps, gdb). 0 or an errno.
int rt_thread_create(pthread_t *thread, void *(*fn)(void *), void *arg, const char *name);
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
