// Placeholder until this service lands: every call fails.
#include "qz_cli.h"
int qz_add_cli_vector_initializer(qz_cli_init_fn) { return -1; }
int qz_start_cli_agent(int, int, pthread_t *) { return -1; }
int qz_reg_cmd_vector(int, int, qz_cli_cmd_fn) { return -1; }
int qz_reg_cfg_generator(qz_cli_cfg_gen_fn, void *) { return -1; }
int qz_cli_agent_add_tlv(void *, int, const void *, int, int) { return -1; }
int qz_cli_printf(qz_cli_cmd *, const char *, ...) { return -1; }
