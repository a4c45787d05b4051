// Process manager interface.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int qz_pm_init(int module_id);
int qz_pm_setstate(int module_id, int state);
int qz_pm_cleanup(int module_id);

#ifdef __cplusplus
}
#endif
