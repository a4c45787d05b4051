// Fuzz target: the platform configuration, as TOML text: every section, the radios and
// the drivers' own tables. A file that parses either passes the checks that need no
// other file or is refused with a message.
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
    if (ok && c.nb_key_file.empty() && !rt_config_check(c, err) && err.empty())
        __builtin_trap();
    return 0;
}
