// ltrctl: the operator's command line for ltrd, over the daemon's cli.sock.
#include <getopt.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>

#include "ltrctl_run.h"

using namespace ltrctl;

static void usage(FILE *f)
{
    fputs("usage: ltrctl [-s SOCKET | -i INSTANCE] [-j] [-k] -f FILE|-\n"
          "       ltrctl [-s SOCKET | -i INSTANCE] [-j] COMMAND WORDS...\n"
          "  -s, --socket PATH      the daemon's cli.sock\n"
          "  -i, --instance NAME    use /run/qz/NAME/cli.sock\n"
          "  -f, --file FILE        run the commands of FILE ('-': standard input)\n"
          "  -k, --keep-going       in a batch, go on after a bad line or a failed command\n"
          "  -t, --timeout SECONDS  give up on a daemon that does not answer (default 10)\n"
          "  -h, --help             this text and the commands\n"
          "  -j, --json             print each command's reply as one JSON document a line\n"
          "  -V, --version          the version\n"
          "Without a command and with standard input not a terminal, commands are read\n"
          "from standard input. 'ltrctl help' lists the commands.\n",
          f);
}

int main(int argc, char **argv)
{
    static const option longs[] = {
        {"socket", required_argument, nullptr, 's'},
        {"instance", required_argument, nullptr, 'i'},
        {"file", required_argument, nullptr, 'f'},
        {"keep-going", no_argument, nullptr, 'k'},
        {"timeout", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {"json", no_argument, nullptr, 'j'},
        {nullptr, 0, nullptr, 0},
    };
    std::string sock, instance, file;
    bool keep_going = false, have_file = false, json = false;
    int timeout_ms = DEFAULT_TIMEOUT_MS;
    opterr = 0;
    // '+': options end at the first command word.
    for (int o; (o = getopt_long(argc, argv, "+s:i:f:kt:hVj", longs, nullptr)) != -1;) {
        switch (o) {
        case 's':
            sock = optarg;
            break;
        case 'i':
            instance = optarg;
            break;
        case 'f':
            file = optarg;
            have_file = true;
            break;
        case 'k':
            keep_going = true;
            break;
        case 'j':
            json = true;
            break;
        case 't': {
            char *end = nullptr;
            double secs = strtod(optarg, &end);
            if (!optarg[0] || *end || !(secs > 0 && secs <= 3600)) {
                fprintf(stderr, "ltrctl: --timeout wants seconds between 0 and 3600, not '%s'\n",
                        optarg);
                return EXIT_USAGE;
            }
            timeout_ms = std::max(1, (int)(secs * 1000));
            break;
        }
        case 'h':
            usage(stdout);
            fputs(help_text().c_str(), stdout);
            return EXIT_OK;
        case 'V':
            printf("ltrctl %s\n", LTR_VERSION);
            return EXIT_OK;
        default:
            if (optopt && strchr("sift", optopt))
                fprintf(stderr, "ltrctl: -%c needs a value\n", optopt);
            else if (optopt)
                fprintf(stderr, "ltrctl: unknown option -%c\n", optopt);
            else
                fprintf(stderr, "ltrctl: unknown option %s\n", argv[optind - 1]);
            usage(stderr);
            return EXIT_USAGE;
        }
    }
    int i = optind;

    std::string path, why;
    if (!socket_path(sock, instance, path, why)) {
        fprintf(stderr, "ltrctl: %s\n", why.c_str());
        return EXIT_USAGE;
    }

    if (have_file || (i == argc && !isatty(STDIN_FILENO))) {
        if (i != argc) {
            fprintf(stderr, "ltrctl: a batch takes no command words\n");
            return EXIT_USAGE;
        }
        std::vector<std::string> lines;
        std::string line;
        std::ifstream f;
        bool from_stdin = !have_file || file == "-";
        if (!from_stdin) {
            f.open(file);
            if (!f) {
                fprintf(stderr, "ltrctl: cannot read %s: %s\n", file.c_str(), strerror(errno));
                return EXIT_USAGE;
            }
        }
        std::istream &in = from_stdin ? std::cin : f;
        while (std::getline(in, line))
            lines.push_back(line);
        return run_batch(lines, keep_going, path, std::cout, std::cerr, timeout_ms, json);
    }
    if (i == argc) {
        usage(stderr);
        return EXIT_USAGE;
    }

    std::string line;
    for (int k = i; k < argc; k++)
        line += (k > i ? " " : "") + std::string(argv[k]);
    request r;
    if (!parse(line, r, why)) {
        fprintf(stderr, "ltrctl: %s\n", why.c_str());
        return EXIT_USAGE;
    }
    if (r.kind == req_kind::help) {
        fputs(help_text().c_str(), stdout);
        return EXIT_OK;
    }
    conn c;
    c.timeout_ms = timeout_ms;
    if (!c.open(path, why)) {
        fprintf(stderr, "ltrctl: %s\n", why.c_str());
        return EXIT_NOLINK;
    }
    return run_request(c, r, std::cout, std::cerr, json);
}
