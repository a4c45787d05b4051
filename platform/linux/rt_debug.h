// Debug categories registered through qz_register_debug_flag.
#pragma once

#include <string>

// Switches a registered category of module on or off; negative when unknown.
int rt_debug_switch(const char *module, const char *category, bool on);
// "module category on|off\n" per registered category, in registration order.
std::string rt_debug_text();
