// ltrctl: the operator's command line for ltrd, over the daemon's cli.sock.
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
    fputs("usage: ltrctl [-s SOCKET | -i INSTANCE] [-k] -f FILE|-\n"
          "       ltrctl [-s SOCKET | -i INSTANCE] COMMAND WORDS...\n"
          "  -s, --socket PATH      the daemon's cli.sock\n"
          "  -i, --instance NAME    use /run/qz/NAME/cli.sock\n"
          "  -f, --file FILE        run the commands of FILE ('-': standard input)\n"
          "  -k, --keep-going       in a batch, go on after a bad line or a failed command\n"
          "  -t, --timeout SECONDS  give up on a daemon that does not answer (default 10)\n"
          "  -h, --help             this text and the commands\n"
          "Without a command and with standard input not a terminal, commands are read\n"
          "from standard input. 'ltrctl help' lists the commands.\n",
          f);
}

int main(int argc, char **argv)
{
    std::string sock, instance, file;
    bool keep_going = false, have_file = false;
    int timeout_ms = DEFAULT_TIMEOUT_MS;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1]; i++) {
        std::string a = argv[i];
        auto value = [&](std::string &dst) {
            if (i + 1 >= argc) {
                fprintf(stderr, "ltrctl: %s needs a value\n", a.c_str());
                exit(EXIT_USAGE);
            }
            dst = argv[++i];
        };
        if (a == "-s" || a == "--socket")
            value(sock);
        else if (a == "-i" || a == "--instance")
            value(instance);
        else if (a == "-f" || a == "--file") {
            value(file);
            have_file = true;
        } else if (a == "-k" || a == "--keep-going")
            keep_going = true;
        else if (a == "-t" || a == "--timeout") {
            std::string v;
            value(v);
            char *end = nullptr;
            double secs = strtod(v.c_str(), &end);
            if (v.empty() || *end || !(secs > 0 && secs <= 3600)) {
                fprintf(stderr, "ltrctl: --timeout wants seconds between 0 and 3600, not '%s'\n",
                        v.c_str());
                return EXIT_USAGE;
            }
            timeout_ms = std::max(1, (int)(secs * 1000));
        }
        else if (a == "-h" || a == "--help") {
            usage(stdout);
            fputs(help_text().c_str(), stdout);
            return EXIT_OK;
        } else {
            fprintf(stderr, "ltrctl: unknown option %s\n", a.c_str());
            usage(stderr);
            return EXIT_USAGE;
        }
    }

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
        return run_batch(lines, keep_going, path, std::cout, std::cerr, timeout_ms);
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
    return run_request(c, r, std::cout, std::cerr);
}
