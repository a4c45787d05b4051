// Placeholder until this unit lands: every operation fails.
#include "ltr_engine.h"
int ltr_srv_start(ltr_mgt *, ltr_srv_msg *) { return -1; }
int ltr_srv_stop(ltr_mgt *, ltr_srv_msg *) { return -1; }
int ltr_srv_modif(ltr_mgt *, ltr_srv_msg *) { return -1; }
int ltr_srv_query(ltr_mgt *, ltr_srv_msg *) { return -1; }
