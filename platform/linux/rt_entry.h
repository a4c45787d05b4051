// The runtime's entry: the process's options (help, version, configuration file and
// check), acted on before anything starts.
#pragma once
#include <stdio.h>

// Reads the options in argv. Returns -1 when the process is to go on starting (after
// --config has set the file), else the exit status, having printed help, the version
// or the configuration check to out and any error to err.
int rt_entry_options(int argc, char **argv, FILE *out, FILE *err);
// Acts on the process's own arguments: exits when an option says so.
void rt_entry();
