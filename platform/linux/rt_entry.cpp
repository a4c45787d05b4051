// The runtime's entry: the options of the process, read before the daemon starts.
#include "rt_entry.h"

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "rt_config.h"

#ifndef LTR_VERSION
#define LTR_VERSION "unknown"
#endif

namespace {

int g_argc;
char **g_argv;

// The C library hands initialisers the process's arguments before main runs: the
// daemon's main does not pass them on, so the runtime keeps them from here.
void save_args(int argc, char **argv, char **)
{
    g_argc = argc;
    g_argv = argv;
}
[[gnu::section(".init_array"), gnu::used]] void (*const save_args_entry)(int, char **,
                                                                       char **) = save_args;

void usage(FILE *f, const char *prog)
{
    fprintf(f,
            "usage: %s [-c FILE] [--check-config]\n"
            "  -c, --config FILE    the platform configuration (default $QZ_PLATFORM_CONFIG,\n"
            "                       else /etc/qz/platform.toml)\n"
            "  -n, --check-config   read and check the configuration, then exit\n"
            "  -V, --version        print the version and exit\n"
            "  -h, --help           this text\n"
            "Errors before the log is set up go to standard error; after that, to the log\n"
            "configured in [log] (syslog unless told otherwise).\n",
            prog);
}

} // namespace

int rt_entry_options(int argc, char **argv, FILE *out, FILE *err)
{
    static const option longs[] = {
        {"config", required_argument, nullptr, 'c'},
        {"check-config", no_argument, nullptr, 'n'},
        {"version", no_argument, nullptr, 'V'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    const char *prog = argc > 0 && argv[0] ? argv[0] : "ltrd";
    if (const char *slash = strrchr(prog, '/'))
        prog = slash + 1;
    bool check = false;
    const char *named = nullptr;
    optind = 0; // full rescan, so that a second call (tests) starts afresh
    opterr = 0;
    for (int o; (o = getopt_long(argc, argv, "+c:nVh", longs, nullptr)) != -1;) {
        switch (o) {
        case 'c':
            named = optarg;
            setenv("QZ_PLATFORM_CONFIG", optarg, 1);
            break;
        case 'n':
            check = true;
            break;
        case 'V':
            fprintf(out, "%s %s\n", prog, LTR_VERSION);
            return 0;
        case 'h':
            usage(out, prog);
            return 0;
        default:
            if (optopt == 'c')
                fprintf(err, "%s: --config needs a file\n", prog);
            else if (optopt)
                fprintf(err, "%s: unknown option -%c\n", prog, optopt);
            else
                fprintf(err, "%s: unknown option %s\n", prog, argv[optind - 1]);
            usage(err, prog);
            return 2;
        }
    }
    if (optind < argc) {
        fprintf(err, "%s: unexpected argument '%s'\n", prog, argv[optind]);
        usage(err, prog);
        return 2;
    }
    // A file named on the command line must exist: its defaults are not what was meant.
    if (named && access(named, F_OK) != 0) {
        fprintf(err, "%s: %s: %s\n", prog, named, strerror(errno));
        return 1;
    }
    if (!check)
        return -1;
    rt_config c;
    std::string why;
    if (!rt_config_load(c, why)) {
        fprintf(err, "configuration error: %s\n", why.c_str());
        return 1;
    }
    fprintf(out, "%s: configuration ok (instance %s, %zu radio%s)\n",
            c.path.empty() ? rt_config_path().c_str() : c.path.c_str(), c.instance.c_str(),
            c.radios.size(), c.radios.size() == 1 ? "" : "s");
    return 0;
}

void rt_entry()
{
    if (!g_argv)
        return;
    int status = rt_entry_options(g_argc, g_argv, stdout, stderr);
    if (status >= 0) {
        fflush(stdout);
        exit(status);
    }
}
