// State of the simulated radios as radio.sock and the tests reach it.
#pragma once
#include <functional>
#include <memory>
#include <string>

#include "rt_driver.h"
#include "sim_world.h"

struct sim_radio;

extern const rt_driver_ops rt_driver_sim;

// The driver's [sim] table.
struct sim_conf {
    std::string world; // world file; "" = only radio.sock feeds the radios
    uint64_t seed = 1;
    std::string ap;    // access point of the world this instance is; "" = instance
    double epoch = -1; // Unix time of the world's time 0; < 0: when the driver started
};

// The driver's own keys of a [[radio]] table.
struct sim_radio_conf {
    uint16_t freq = 0; // channel frequency in MHz (0: from the world file)
};

constexpr size_t SIM_MAX_MAC_OBJ = DRV_MAX_MAC_OBJ;
constexpr size_t SIM_MAX_OUI_OBJ = DRV_MAX_OUI_OBJ;

// The open simulated radio with that interface name, or null; kept alive while held.
std::shared_ptr<sim_radio> sim_radio_find(const std::string &name);

// Stations injected through radio.sock. Results: empty on success, else why not.
std::string sim_hear(sim_radio *r, const sim_heard &h);
std::string sim_forget(sim_radio *r, const sim_mac &mac);
void sim_clear(sim_radio *r);
std::string sim_assoc(sim_radio *r, const sim_mac &mac, uint16_t freq);
std::string sim_disassoc(sim_radio *r, const sim_mac &mac);
// The next count calls of the driver operation op fail ("get_lta_rpt_tbl", ...).
std::string sim_fail(const std::string &op, int count);
// "track", "lmatch", "obj mac|oui" and "stats" lines, each ending in '\n'.
std::string sim_state_text(sim_radio *r);

// The simulated clock, in seconds since the first radio opened; tests may pin it.
void sim_set_clock(std::function<double()> clock);
// Tests: forget the world, the pending failures and the clock.
void sim_reset();

// radio.sock under runtime_dir: started with the first simulated radio, ends on stop.
void rt_radio_sock_start();
void rt_radio_sock_stop();
// One request line in, the whole reply out (ends with "ok\n" or "error: <why>\n").
std::string rt_radio_sock_command(const std::string &line);
