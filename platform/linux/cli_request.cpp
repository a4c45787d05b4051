// One cli.sock request body in, one reply body out: command, running configuration,
// debug switch and platform status. Malformed bodies get an error reply.
#include <string.h>

#include "cli_agent.h"
#include "cli_proto.h"
#include "qz_format.h"
#include "rt_counter.h"
#include "rt_debug.h"
#include "rt_log.h"

using namespace cli_proto;

static std::vector<uint8_t> reply(int32_t result, const std::string &text = {})
{
    std::vector<uint8_t> b;
    put_u32(b, (uint32_t)result);
    b.insert(b.end(), text.begin(), text.end());
    return b;
}

// Counted, answered with the reason, and logged at most once per 10 s per counter (a
// client looping on bad requests must not flood the log).
static std::vector<uint8_t> refuse(int32_t code, const char *counter, const std::string &why)
{
    rt_log_ratelimited(counter, 10, 4, "cli: %s\n", why.c_str());
    rt_counter(counter)++;
    return reply(code, "error: " + why + "\n");
}

static std::vector<uint8_t> do_command(std::span<const uint8_t> b)
{
    if (b.size() < COMMAND_HEAD + IPC_HEAD + BLOCK_MIN || b.size() > COMMAND_HEAD + IPC_HEAD + BLOCK_MAX)
        return refuse(E_MALFORMED, "cli.malformed",
                      qz_format_str("command request of %d bytes (expected %d to %d)", (int)b.size(),
                                    (int)(COMMAND_HEAD + IPC_HEAD + BLOCK_MIN),
                                    (int)(COMMAND_HEAD + IPC_HEAD + BLOCK_MAX)));
    uint16_t cmd_id = get_u16(&b[1]);
    uint8_t negated = b[3];
    if (negated > 1)
        return refuse(E_MALFORMED, "cli.malformed",
                      qz_format_str("command %d: negated flag %d (expected 0 or 1)", cmd_id, negated));
    // A zeroed structure: a short block reads as zeros past its end.
    qz_cli_ipc ipc{};
    memcpy(&ipc, &b[COMMAND_HEAD], b.size() - COMMAND_HEAD);
    if (ipc.type != QZ_CLI_IPC_STRUCT_T)
        return refuse(E_MALFORMED, "cli.malformed",
                      qz_format_str("command %d: IPC type %d (expected %d)", cmd_id, ipc.type,
                                    QZ_CLI_IPC_STRUCT_T));
    qz_cli_cmd_fn fn = cli_find_cmd(cmd_id);
    if (!fn)
        return refuse(E_UNKNOWN, "cli.unknown", qz_format_str("unknown command %d", cmd_id));
    std::string text;
    qz_cli_cmd cmd{};
    cmd.cmd_id = cmd_id;
    cmd.negated = negated;
    cmd.out = &text;
    rt_counter("cli.commands")++;
    int r = fn(&cmd, &ipc);
    return reply(r, text);
}

static std::vector<uint8_t> do_running(std::span<const uint8_t> b)
{
    if (b.size() != 1)
        return refuse(E_MALFORMED, "cli.malformed",
                      qz_format_str("running-configuration request of %d bytes (expected 1)",
                                    (int)b.size()));
    std::vector<std::pair<uint16_t, std::vector<uint8_t>>> out;
    int r = cli_run_generator(out);
    if (out.size() > 0xFFFF)
        out.resize(0xFFFF);
    std::vector<uint8_t> rep = reply(r);
    put_u16(rep, (uint16_t)out.size());
    for (auto &[id, block] : out) {
        put_u16(rep, id);
        put_u16(rep, (uint16_t)block.size());
        rep.insert(rep.end(), block.begin(), block.end());
    }
    return rep;
}

static std::vector<uint8_t> do_debug(std::span<const uint8_t> b)
{
    // u8 kind, u8 on/off, then two NUL-terminated names that fill the rest exactly.
    if (b.size() < 4)
        return refuse(E_MALFORMED, "cli.malformed", "debug request too short");
    if (b[1] > 1)
        return refuse(E_MALFORMED, "cli.malformed",
                      qz_format_str("debug request: switch %d (expected 0 or 1)", b[1]));
    const char *p = (const char *)&b[2];
    size_t n = b.size() - 2;
    const char *end1 = (const char *)memchr(p, 0, n);
    if (!end1 || end1 == p)
        return refuse(E_MALFORMED, "cli.malformed", "debug request: no module name");
    size_t rest = n - (size_t)(end1 + 1 - p);
    const char *cat = end1 + 1;
    const char *end2 = rest ? (const char *)memchr(cat, 0, rest) : nullptr;
    if (!end2 || end2 == cat)
        return refuse(E_MALFORMED, "cli.malformed", "debug request: no category name");
    if (end2 + 1 != p + n)
        return refuse(E_MALFORMED, "cli.malformed", "debug request: bytes after the category");
    int r = rt_debug_switch(p, cat, b[1] != 0);
    if (r < 0)
        return refuse(E_UNKNOWN, "cli.unknown",
                      qz_format_str("unknown debug category %s %s", p, cat));
    return reply(0);
}

std::vector<uint8_t> cli_handle_request(std::span<const uint8_t> body)
{
    if (body.empty())
        return refuse(E_MALFORMED, "cli.malformed", "empty request");
    switch (body[0]) {
    case REQ_COMMAND:
        return do_command(body);
    case REQ_RUNNING:
        return do_running(body);
    case REQ_DEBUG:
        return do_debug(body);
    case REQ_STATUS:
        if (body.size() != 1)
            return refuse(E_MALFORMED, "cli.malformed",
                          qz_format_str("status request of %d bytes (expected 1)", (int)body.size()));
        return reply(0, rt_status_text());
    default:
        return refuse(E_MALFORMED, "cli.malformed", qz_format_str("unknown request kind %d", body[0]));
    }
}
