// Fuzz target: the platform configuration, as TOML text: every section, the radios and
// the drivers' own tables. A file that parses and names no other file to read (site
// key, certificates) either passes the checks or is refused with a message.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "fuzz_rt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = (fuzz_rt_init(), true);
    (void)ready;
    std::string text(reinterpret_cast<const char *>(data), size);
    rt_config c;
    std::string err;
    bool ok = rt_config_parse_text(text, "fuzz.toml", c, err);
    if (!ok && err.empty())
        __builtin_trap(); // refused without saying why
    bool reads_files = !c.nb_key_file.empty() || !c.server_ca_file.empty() ||
                       !c.server_cert_file.empty() || !c.server_key_file.empty();
    if (ok && !reads_files && !rt_config_check(c, err) && err.empty())
        __builtin_trap();
    return 0;
}
