// Hardware library: radio enumeration.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Number of radios of this access point.
int qz_radio_count(void);
// Interface name of radio i (0 <= i < qz_radio_count()), or null.
const char *qz_ifname_id2radio(int i);

#ifdef __cplusplus
}
#endif
