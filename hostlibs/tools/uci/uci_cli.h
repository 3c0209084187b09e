// The parts of the `uci` command.
#ifndef UCI_CLI_H
#define UCI_CLI_H

#include <uci.h>

#include <cstdio>

constexpr int wrong_usage = 255;

struct cli {
    uci_context *ctx;
    FILE *input;           // of import and batch
    const char *delimiter; // between the values of a list
    bool quiet;
    bool by_type; // a package's show names anonymous sections "@type[n]"
    bool merge;
    bool no_commit;
    int line; // of a batch: ends of lines read so far; else -1
};

// Runs one command with its arguments. Its exit status, or wrong_usage (uci_commands.cpp).
int run_command(const cli &c, int argc, char **argv);
// Prints the arguments of every command.
void print_commands(FILE *stream);
// Prints the last error unless quiet; returns 1.
int fail(const cli &c);

// Printing on standard output (uci_show.cpp).
void print_value(const cli &c, uci_option *o, bool quote);
void show_package(const cli &c, uci_package *p);
void show_section(const cli &c, uci_section *s);
void show_option(const cli &c, uci_option *o);
void show_changes(uci_package *p);

#endif
