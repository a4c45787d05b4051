// Fuzz target: the simulated site's world file. A world that parses is then walked: the
// position of every station and what every radio of every access point hears, at a
// few times, must come out without a fault.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "sim_world.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string err;
    std::shared_ptr<const sim_world> w = sim_world_parse(text, "fuzz.world.toml", err);
    if (!w) {
        if (err.empty())
            __builtin_trap(); // refused without saying why
        return 0;
    }
    std::vector<sim_heard> heard;
    for (double t : {0.0, 1.5, 3600.25}) {
        for (const sim_world_sta &s : w->stations)
            sim_station_pos(s, t);
        for (size_t ap = 0; ap < w->aps.size() && ap < 8; ap++)
            for (size_t r = 0; r < w->aps[ap].radios.size() && r < 4; r++) {
                heard.clear();
                sim_world_hear(*w, (int)ap, (int)r, w->aps[ap].radios[r], t, 7, heard);
                for (const sim_heard &h : heard)
                    sim_world_assoc(*w, (int)ap, (int)r, h.mac);
            }
    }
    return 0;
}
