// Command-line agent: numbered commands, running configuration, command output.
#pragma once
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QZ_CLI_IPC_STRUCT_T 17

// Command context, owned by the agent.
struct qz_cli_cmd {
    uint32_t cmd_id;
    uint32_t flags;
    uint32_t negated; // nonzero for the "no" form
    uint32_t reserved;
    void *out;        // the agent's output sink
};

// IPC structure a command handler receives.
struct qz_cli_ipc {
    uint16_t type; // QZ_CLI_IPC_STRUCT_T
    uint8_t unused[6];
    uint8_t block[20]; // argument block, 12 to 20 bytes used
};

typedef int (*qz_cli_init_fn)(void);
typedef int (*qz_cli_cmd_fn)(struct qz_cli_cmd *cmd, struct qz_cli_ipc *ipc);
typedef int (*qz_cli_cfg_gen_fn)(void *ctx);

int qz_add_cli_vector_initializer(qz_cli_init_fn fn);
int qz_start_cli_agent(int module_id, int flags, pthread_t *thread);
int qz_reg_cmd_vector(int group, int cmd_id, qz_cli_cmd_fn fn);
int qz_reg_cfg_generator(qz_cli_cfg_gen_fn fn, void *arg);
// One command of the running configuration, from inside a generator.
int qz_cli_agent_add_tlv(void *ctx, int cmd_id, const void *block, int len, int tag);
int qz_cli_printf(struct qz_cli_cmd *cmd, const char *fmt, ...);

#ifdef __cplusplus
}
static_assert(offsetof(qz_cli_cmd, negated) == 8);
static_assert(sizeof(qz_cli_ipc) == 28);
static_assert(offsetof(qz_cli_ipc, block) == 8);
#endif
