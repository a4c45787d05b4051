// Neighbour messaging for the daemon: qz_hc_* on top of the process's endpoint.
#include "qz_nbrcom.h"

#include <syslog.h>

#include <mutex>
#include <vector>

#include "nbr_endpoint.h"
#include "rt_log.h"

static std::mutex g_mu;
static std::vector<uint16_t> g_modules; // registered through qz_hc_register, newest last

int qz_hc_register(qz_hc_reg *reg)
{
    if (!reg || !reg->recv) {
        rt_log(LOG_ERR, "qz_hc_register: no record or no callback");
        return -1;
    }
    if (reg->module_id >= NBR_MODULE_RESERVED) {
        rt_log(LOG_ERR, "qz_hc_register: module id %u is out of range", reg->module_id);
        return -1;
    }
    if (reg->version != NBR_REG_VERSION) {
        rt_log(LOG_ERR, "qz_hc_register: module %u gives record version %u, not %u",
               reg->module_id, reg->version, NBR_REG_VERSION);
        return -1;
    }
    nbr_endpoint *ep = nbr_global();
    if (!ep)
        return -1;
    // The record is the caller's and gone after this call: keep what we need.
    qz_hc_recv_cb cb = reg->recv;
    void *priv = reg->priv;
    auto module = static_cast<uint16_t>(reg->module_id);
    nbr_endpoint_add(ep, module, [cb, priv](uint32_t, uint8_t *data, int len) {
        cb(priv, len, data);
    });
    std::lock_guard g(g_mu);
    std::erase(g_modules, module);
    g_modules.push_back(module);
    return 0;
}

int qz_hc_unregister(void)
{
    std::vector<uint16_t> mods;
    {
        std::lock_guard g(g_mu);
        mods.swap(g_modules);
    }
    if (mods.empty())
        return -1;
    nbr_endpoint *ep = nbr_global();
    for (uint16_t m : mods)
        if (ep)
            nbr_endpoint_remove(ep, m);
    return 0;
}

int qz_hc3u_send(uint32_t dst_ip, void *msg, int len)
{
    if ((!msg && len) || len < 0 || dst_ip == 0)
        return -1;
    uint16_t module;
    {
        std::lock_guard g(g_mu);
        if (g_modules.empty()) {
            rt_log_ratelimited("nbr.send.unregistered", 10, LOG_ERR,
                               "qz_hc3u_send to %i before qz_hc_register: no module id", dst_ip);
            return -1;
        }
        module = g_modules.back();
    }
    nbr_endpoint *ep = nbr_global();
    if (!ep)
        return -1;
    return nbr_endpoint_send(ep, dst_ip, module, msg, static_cast<size_t>(len));
}
