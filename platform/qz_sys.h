// System state.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// 0 while the system is not ready, non-zero once it is.
int qz_sys_ready(void);

#ifdef __cplusplus
}
#endif
