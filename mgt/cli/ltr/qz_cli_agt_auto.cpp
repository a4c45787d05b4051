// Placeholder until this unit lands: every operation fails.
#include "ltr_cli.h"
int ltr_reg_cfg_generator(void) { return -1; }
int ltr_reg_cmd_vectors(void) { return -1; }
