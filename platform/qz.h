// Base library: process detachment, shared memory and formatted text.
#pragma once
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Detaches the process (no-op when the runtime runs in the foreground).
int qz_daemonize(int nochdir, int noclose);
// Address of a size-byte segment for key: zero-filled when new, else its previous
// content; *id receives the segment's identifier. Null on failure.
void *qz_shm_create(int *id, int key, int size);
int qz_shm_destroy(int id, void *addr);
// snprintf with the platform conversions %m (MAC) and %i (IPv4).
int qz_snprintf(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
