// The process entry, the start-up and shutdown thread, the debug categories, and
// starting and stopping tracking as a whole.
#define LTR_UNIT "qz_ltr_common"
#include <stdlib.h>
#include <unistd.h>

#include "ltr_engine.h"
#include "ltr_mgt.h"
#include "ltr_rssi.h"
#include "ltr_track.h"
#include "qz.h"
#include "qz_cli.h"
#include "qz_dcd.h"
#include "qz_event.h"
#include "qz_mpi.h"
#include "qz_nbrcom.h"
#include "qz_sys.h"
#include "qz_tpa.h"
#include "ltr_event.h"

uint32_t ltr_debug_flags;

int ltr_main(int, char **)
{
    qz_daemonize(0, 1);
    if (qz_pmpt_timer_init(0) < 0)
        exit(1);

    pthread_t thread;
    int r = qz_pthread_create(&thread, qz_ltr_main, nullptr, 0, 0, 0);
    if (r != 0) {
        qz_log(6, 3, "QZ_CHECK_RC failed, rc = %d", r);
        return r;
    }
    pthread_join(thread, nullptr);
    return 0;
}

// A start-up step that cannot be done without ends the whole process.
[[noreturn]] static void ltr_die(const char *text)
{
    qz_log(0, 3, "%s", text);
    exit(1);
}

void *qz_ltr_main(void *)
{
    pthread_t event_thread{};
    pthread_t cli_thread{};

    LTR_DBG(INFO, "enter qz_ltr_main.\n");
    if (qz_dcd_lib_init() < 0)
        ltr_die("dcd lib init failed!\n");
    if (ltr_mgt_init() < 0)
        ltr_die("init ltd failed!\n");
    if (ltr_event_init(&event_thread) < 0)
        ltr_die("init event lib failed!\n");
    if (qz_pthread_setschedparam(event_thread, 2, 5) < 0)
        ltr_die("adjust ltd event thread priority failed!\n");

    qz_pm_init(LTR_MODULE_ID);
    qz_add_cli_vector_initializer(ltr_register_debug_flags);
    qz_add_cli_vector_initializer(ltr_reg_cfg_generator);
    qz_add_cli_vector_initializer(ltr_noop_initializer);
    qz_add_cli_vector_initializer(ltr_reg_cmd_vectors);
    if (qz_start_cli_agent(LTR_MODULE_ID, 1, &cli_thread) < 0)
        ltr_die("start CLI agent failed!\n");
    qz_pm_setstate(LTR_MODULE_ID, 1);

    while (qz_sys_ready() == 0)
        sleep(1);

    pthread_join(cli_thread, nullptr);
    pthread_join(event_thread, nullptr);

    // The settings segment, timers, lock and registrations end with the process.
    qz_pm_cleanup(LTR_MODULE_ID);
    qz_dcd_lib_cleanup();
    qz_event_cleanup();
    LTR_DBG(INFO, "leave qz_ltr_main.\n");
    return nullptr;
}

int ltr_register_debug_flags(void)
{
    static constexpr struct {
        const char *name;
        uint32_t mask;
    } cats[] = {
        {"error", LTR_DBG_ERROR}, {"event", LTR_DBG_EVENT}, {"info", LTR_DBG_INFO},
        {"packet", LTR_DBG_PACKET}, {"all", LTR_DBG_ALL},
    }, libs[] = {
        {"scdlib", 0x1}, {"dcdlib", 0x2}, {"alllib", 0xFFFFFFFFu},
    };
    for (auto &c : cats)
        qz_register_debug_flag("ltr", c.name, &ltr_debug_flags, c.mask);
    for (auto &l : libs)
        qz_register_dbg_lib_flag("ltr", l.name, &qz_lib_dbg, l.mask);
    return 0;
}

int ltr_noop_initializer(void)
{
    return 0;
}

int ltr_start_tracking(void)
{
    qz_hc_reg reg{};
    reg.module_id = LTR_MODULE_ID;
    reg.caps = 6;
    reg.version = 1;
    reg.recv = ltr_lta_msg_recv;
    reg.priv = nullptr;
    if (qz_hc_register(&reg) < 0) {
        LTR_DBG(ERROR, "register nbrcom library failed.\n");
        return -1;
    }
    if (ltr_engine_ops.init(&mgt) < 0) {
        LTR_DBG(ERROR, "register engine failed.\n");
        qz_hc_unregister();
        return -1;
    }
    mgt.engine = &ltr_engine_ops;
    mgt.cfg->enabled = 1;
    ltr_set_track_enable(1);
    qz_pmpt_timer_start(mgt.owner_flush_timer, LTR_OWNER_CHECK_PERIOD);
    qz_pmpt_timer_start(mgt.rssi_fetch_timer, mgt.cfg->rpt_interval);
    return 0;
}

int ltr_set_enabled(int enable)
{
    ltr_lock(&mgt);
    if (enable) {
        int r = mgt.engine ? 0 : ltr_start_tracking();
        ltr_unlock(&mgt);
        return r;
    }

    // Radios go off even when tracking was never started.
    ltr_set_track_enable(0);
    if (mgt.engine) {
        qz_pmpt_timer_stop(mgt.rssi_fetch_timer);
        qz_pmpt_timer_stop(mgt.owner_flush_timer);
        mgt.engine->cleanup(&mgt);
        mgt.engine = nullptr;
        // Not under the lock: the service may be delivering to the relay receiver,
        // which waits for it. Handlers see engine null meanwhile and do nothing.
        ltr_unlock(&mgt);
        qz_hc_unregister();
        ltr_lock(&mgt);
        mgt.cfg->enabled = 0;
    }
    ltr_sta_tbl_flush(&mgt.sta_tbl);
    ltr_track_list_cleanup();
    ltr_unlock(&mgt);
    return 0;
}
