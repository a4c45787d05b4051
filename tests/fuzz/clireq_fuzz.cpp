// Fuzz target: a cli.sock request body, as the agent's connection hands it on after the
// frame length: request kind, command number, IPC structure and argument block, debug
// names. Two commands are registered: one that checks what reaches it and writes a
// line, one that fails; a running-configuration generator gives two entries. Every
// reply starts with its result code, and an error reply says why.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <span>
#include <vector>

#include "cli_agent.h"
#include "cli_proto.h"
#include "fuzz_rt.h"
#include "qz_cli.h"
#include "qz_log.h"

namespace {

uint32_t dbg_word;

int checked_cmd(qz_cli_cmd *cmd, qz_cli_ipc *ipc)
{
    if (ipc->type != QZ_CLI_IPC_STRUCT_T || cmd->negated > 1)
        __builtin_trap(); // the agent let through what it must refuse
    return qz_cli_printf(cmd, "block %02x%02x, no %u\n", ipc->block[0], ipc->block[19], cmd->negated) < 0
               ? -1
               : 0;
}

int failing_cmd(qz_cli_cmd *cmd, qz_cli_ipc *)
{
    qz_cli_printf(cmd, "no\n");
    return -1;
}

int generator(void *ctx)
{
    const uint8_t block[20] = {1, 2, 3};
    qz_cli_agent_add_tlv(ctx, 1, block, 12, 0);
    qz_cli_agent_add_tlv(ctx, 2, block, 20, 0);
    return 0;
}

bool setup()
{
    fuzz_rt_init();
    qz_reg_cmd_vector(0, 1, checked_cmd);
    qz_reg_cmd_vector(0, 2, failing_cmd);
    qz_reg_cfg_generator(generator, nullptr);
    qz_register_debug_flag("fz", "cat", &dbg_word, 1);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = setup();
    (void)ready;
    if (size > cli_proto::MAX_REQUEST)
        return 0; // the connection is closed before a body this large is read
    std::unique_ptr<uint8_t[]> in(new uint8_t[size ? size : 1]);
    if (size)
        memcpy(in.get(), data, size);
    std::vector<uint8_t> rep = cli_handle_request(std::span<const uint8_t>(in.get(), size));
    if (rep.size() < 4)
        __builtin_trap();
    int32_t code = (int32_t)cli_proto::get_u32(rep.data());
    if ((code == cli_proto::E_MALFORMED || code == cli_proto::E_UNKNOWN) &&
        (rep.size() < 11 || memcmp(rep.data() + 4, "error: ", 7) != 0))
        __builtin_trap();
    return 0;
}
