// Base library: detaching the process, System V shared memory kept apart per
// instance, and formatted text through the one formatter.
#include "qz.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "rt_config.h"
#include "rt_entry.h"
#include "rt_log.h"
#include "rt_malloc.h"
#include "rt_process.h"
#include "rt_stop.h"

namespace {
int g_ready_fd = -1; // write end held by the detached process until it is ready
}

int qz_daemonize(int nochdir, int noclose)
{
    rt_malloc_setup();
    rt_entry(); // --help, --version, --check-config end here
    const rt_config &c = rt_cfg(); // a bad configuration ends the start before detaching
    if (!c.foreground) {
        int pfd[2];
        if (pipe2(pfd, O_CLOEXEC) != 0) {
            rt_log(LOG_ERR, "daemonize: pipe: %s", strerror(errno));
            return -1;
        }
        pid_t pid = fork();
        if (pid < 0) {
            rt_log(LOG_ERR, "daemonize: fork: %s", strerror(errno));
            return -1;
        }
        if (pid > 0) {
            // The caller's process waits until the daemon is ready or has died, so
            // that its exit status says whether the start worked.
            close(pfd[1]);
            waitpid(pid, nullptr, 0);
            char b;
            ssize_t n;
            do
                n = read(pfd[0], &b, 1);
            while (n < 0 && errno == EINTR);
            _exit(n == 1 ? 0 : 1);
        }
        close(pfd[0]);
        setsid();
        pid = fork(); // never a session leader again: no controlling terminal
        if (pid < 0)
            _exit(1);
        if (pid > 0)
            _exit(0);
        g_ready_fd = pfd[1];
        if (!nochdir && chdir("/") != 0)
            rt_log(LOG_WARNING, "daemonize: chdir /: %s", strerror(errno));
        if (!noclose) {
            int fd = open("/dev/null", O_RDWR);
            if (fd >= 0) {
                dup2(fd, 0);
                dup2(fd, 1);
                dup2(fd, 2);
                if (fd > 2)
                    close(fd);
            }
        }
    }
    rt_signals_init();
    return 0;
}

void rt_daemon_ready()
{
    rt_log_started();
    if (g_ready_fd < 0)
        return;
    ssize_t n = write(g_ready_fd, "r", 1);
    (void)n;
    close(g_ready_fd);
    g_ready_fd = -1;
}

// ---- Shared memory ----

int rt_shm_key(int key)
{
    // FNV-1a over "<instance>:<key>": instances on one host get their own segments.
    std::string s = rt_cfg().instance + ":" + std::to_string(key);
    uint32_t h = 2166136261u;
    for (unsigned char ch : s) {
        h ^= ch;
        h *= 16777619u;
    }
    int k = (int)h;
    if (k == IPC_PRIVATE || k == -1)
        k = 1;
    return k;
}

void *qz_shm_create(int *id, int key, int size)
{
    if (!id || size <= 0)
        return nullptr;
    int k = rt_shm_key(key);
    int sid = shmget(k, (size_t)size, IPC_CREAT | 0600);
    if (sid < 0) {
        rt_log(LOG_ERR, "shared memory key 0x%x (instance %s, key 0x%x), %d bytes: %s", k,
               rt_cfg().instance.c_str(), key, size, strerror(errno));
        return nullptr;
    }
    void *p = shmat(sid, nullptr, 0);
    if (p == (void *)-1) {
        rt_log(LOG_ERR, "shared memory id %d: attach: %s", sid, strerror(errno));
        return nullptr;
    }
    *id = sid;
    return p;
}

int qz_shm_destroy(int id, void *addr)
{
    int rc = 0;
    if (addr && shmdt(addr) != 0)
        rc = -1;
    if (shmctl(id, IPC_RMID, nullptr) != 0) {
        rt_log(LOG_ERR, "shared memory id %d: remove: %s", id, strerror(errno));
        rc = -1;
    }
    return rc;
}

