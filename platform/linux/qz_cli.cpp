// The CLI agent's platform calls: registration of initialisers, commands and the
// configuration generator, command output, and the start of the agent.
#include "qz_cli.h"

#include <stdarg.h>
#include <string.h>

#include <map>
#include <mutex>

#include "cli_agent.h"
#include "qz_format.h"
#include "rt_log.h"
#include "rt_process.h"

namespace {

struct registry {
    std::mutex mu;
    std::vector<qz_cli_init_fn> inits;
    std::map<int, std::vector<qz_cli_cmd_fn>> cmds; // every registration kept, first serves
    qz_cli_cfg_gen_fn gen = nullptr;
    void *gen_arg = nullptr;
    bool started = false;
};

registry &R()
{
    static registry r;
    return r;
}

// What a generator answers into: one entry per qz_cli_agent_add_tlv call.
struct gen_ctx {
    uint32_t magic;
    std::vector<std::pair<uint16_t, std::vector<uint8_t>>> *out;
};
constexpr uint32_t GEN_MAGIC = 0x636c6967; // guards against a foreign context pointer

} // namespace

int qz_add_cli_vector_initializer(qz_cli_init_fn fn)
{
    if (!fn)
        return -1;
    std::lock_guard g(R().mu);
    R().inits.push_back(fn);
    return 0;
}

int qz_reg_cmd_vector(int, int cmd_id, qz_cli_cmd_fn fn)
{
    if (!fn || cmd_id < 0 || cmd_id > 0xFFFF) {
        rt_log(3, "cli: refused registration of command %d\n", cmd_id);
        return -1;
    }
    std::lock_guard g(R().mu);
    R().cmds[cmd_id].push_back(fn);
    return 0;
}

int qz_reg_cfg_generator(qz_cli_cfg_gen_fn fn, void *arg)
{
    if (!fn)
        return -1;
    std::lock_guard g(R().mu);
    R().gen = fn;
    R().gen_arg = arg;
    return 0;
}

int qz_cli_agent_add_tlv(void *ctx, int cmd_id, const void *block, int len, int)
{
    auto *c = (gen_ctx *)ctx;
    if (!c || c->magic != GEN_MAGIC || cmd_id < 0 || cmd_id > 0xFFFF || len < 0 || len > 0xFFFF ||
        (len > 0 && !block)) {
        rt_log(3, "cli: bad running-configuration entry (command %d, %d bytes)\n", cmd_id, len);
        return -1;
    }
    auto *p = (const uint8_t *)block;
    c->out->emplace_back((uint16_t)cmd_id, std::vector<uint8_t>(p, p + len));
    return 0;
}

int qz_cli_printf(qz_cli_cmd *cmd, const char *fmt, ...)
{
    if (!cmd || !fmt)
        return -1;
    va_list ap;
    va_start(ap, fmt);
    std::string s = qz_vformat_str(fmt, ap);
    va_end(ap);
    if (cmd->out)
        ((std::string *)cmd->out)->append(s);
    return (int)s.size();
}

qz_cli_cmd_fn cli_find_cmd(int cmd_id)
{
    std::lock_guard g(R().mu);
    auto it = R().cmds.find(cmd_id);
    return it == R().cmds.end() || it->second.empty() ? nullptr : it->second.front();
}

int cli_run_generator(std::vector<std::pair<uint16_t, std::vector<uint8_t>>> &out)
{
    qz_cli_cfg_gen_fn gen;
    {
        std::lock_guard g(R().mu);
        gen = R().gen;
    }
    if (!gen)
        return -1;
    gen_ctx ctx{GEN_MAGIC, &out};
    return gen(&ctx);
}

void cli_registry_reset()
{
    std::lock_guard g(R().mu);
    R().inits.clear();
    R().cmds.clear();
    R().gen = nullptr;
    R().gen_arg = nullptr;
    R().started = false;
}

int qz_start_cli_agent(int, int, pthread_t *thread)
{
    std::vector<qz_cli_init_fn> inits;
    {
        std::lock_guard g(R().mu);
        if (R().started) {
            rt_log(3, "cli: agent already started\n");
            return -1;
        }
        inits = R().inits;
    }
    // The initialisers register the commands the agent is about to serve.
    for (auto fn : inits)
        fn();
    int r = cli_server_start(rt_runtime_path("cli.sock"), thread);
    if (r < 0)
        return r;
    std::lock_guard g(R().mu);
    R().started = true;
    return 0;
}
