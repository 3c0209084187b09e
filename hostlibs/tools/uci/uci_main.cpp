// The `uci` command: one command a call or a line; changes are staged until `commit`.
#include "uci_cli.h"
#include "uci_words.h"

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <strings.h>
#include <unistd.h>

namespace {

constexpr size_t max_batch_words = 3;

void print_usage() {
    fputs("Usage: uci [<options>] <command> [<arguments>]\n\nCommands:\n", stderr);
    print_commands(stderr);
    fputs("\nOptions:\n"
          "  -c <path>  directory of the configuration files (default " UCI_CONFDIR ")\n"
          "  -C <path>  directory of files that count instead of those (default " UCI_CONF2DIR ")\n"
          "  -d <text>  delimiter of list values\n"
          "  -f <file>  input of import and batch instead of standard input\n"
          "  -m         import adds to the package as it is, staged\n"
          "  -n, -N     export generated names of anonymous sections, or none (default)\n"
          "  -p <path>  one more directory of staged changes to read\n"
          "  -P <path>  directory of staged changes, to read and write; commit does nothing\n"
          "  -t <path>  directory of staged changes, to read and write (default " UCI_SAVEDIR ")\n"
          "  -q         no error messages\n"
          "  -s, -S     stop at the first fault of a file (default), or pass its line over\n"
          "  -X         show generated names of anonymous sections\n",
          stderr);
}

void complain(const cli &c, const char *what) {
    if (!c.quiet)
        fprintf(stderr, "%s\n", what);
}

// The words of a batch's line. False when they are none to run: the reason has been printed.
bool read_words(const cli &c, ucilib::word_reader &reader, std::vector<std::string> &words) {
    words.clear();
    try {
        for (std::string word; !(word = reader.word()).empty();) {
            if (words.size() == max_batch_words) {
                complain(c, "Too many arguments");
                return false;
            }
            words.push_back(std::move(word));
        }
    } catch (const ucilib::parse_fault &fault) {
        c.ctx->err = UCI_ERR_PARSE;
        c.ctx->reason = fault.reason;
        c.ctx->line = reader.line();
        c.ctx->byte = static_cast<int>(reader.byte());
        fail(c);
        return false;
    }
    return !words.empty();
}

// Each command starts with no package loaded; a failure does not end the batch.
int run_batch(const cli &c) {
    ucilib::stream_source source(c.input);
    ucilib::word_reader reader(source);
    std::vector<std::string> words;
    while (reader.next_line()) {
        if (!read_words(c, reader, words))
            continue;
        if (strcasecmp(words[0].c_str(), "exit") == 0)
            break;
        std::array<char *, max_batch_words + 1> argv{};
        for (size_t i = 0; i < words.size(); i++)
            argv[i] = words[i].data();
        cli with_line = c;
        with_line.line = reader.line();
        if (words[0] == "help")
            print_usage();
        else if (run_command(with_line, static_cast<int>(words.size()), argv.data()) == wrong_usage)
            complain(c, "Unknown command");
        uci_element *e, *next;
        uci_foreach_element_safe(&c.ctx->root, next, e) uci_unload(c.ctx, uci_to_package(e));
    }
    return 0;
}

int run(const cli &c, int argc, char **argv) {
    if (strcmp(argv[0], "batch") == 0)
        return argc == 1 ? run_batch(c) : wrong_usage;
    if (strcmp(argv[0], "help") == 0) {
        print_usage();
        return 0;
    }
    return run_command(c, argc, argv);
}

void set_flag(uci_context *ctx, int flag, bool on) {
    const int flags = on ? ctx->flags | flag : ctx->flags & ~flag;
    ctx->flags = static_cast<uci_flags>(flags);
}

// False when the option is unknown.
bool read_option(cli &c, int option, const char *value) {
    switch (option) {
    case 'c':
        uci_set_confdir(c.ctx, value);
        return true;
    case 'C':
        uci_set_conf2dir(c.ctx, value);
        return true;
    case 'd':
        c.delimiter = value;
        return true;
    case 'f':
        c.input = fopen(value, "re");
        return true;
    case 'm':
        c.merge = true;
        return true;
    case 'n':
    case 'N':
        set_flag(c.ctx, UCI_FLAG_EXPORT_NAME, option == 'n');
        return true;
    case 'p':
        uci_add_delta_path(c.ctx, value);
        return true;
    case 'P':
        c.no_commit = true;
        [[fallthrough]];
    case 't':
        uci_set_savedir(c.ctx, value);
        return true;
    case 'q':
        c.quiet = true;
        return true;
    case 's':
        set_flag(c.ctx, UCI_FLAG_STRICT, true);
        return true;
    case 'S':
        set_flag(c.ctx, UCI_FLAG_STRICT, false);
        set_flag(c.ctx, UCI_FLAG_PERROR, true);
        return true;
    case 'X':
        c.by_type = false;
        return true;
    default:
        return false;
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx(uci_alloc_context(),
                                                                        uci_free_context);
    if (!ctx) {
        fputs("uci: Out of memory\n", stderr);
        return 1;
    }
    set_flag(ctx.get(), UCI_FLAG_SAVED_DELTA, true);
    cli c{ctx.get(), stdin, " ", false, true, false, false, -1};
    for (int option; (option = getopt(argc, argv, "c:C:d:f:mnNp:P:qsSt:X")) != -1;) {
        if (!read_option(c, option, optarg)) {
            print_usage();
            return 0;
        }
        if (!c.input) {
            perror("uci");
            return 1;
        }
    }
    if (optind == argc) {
        print_usage();
        return 0;
    }
    const int status = run(c, argc - optind, argv + optind);
    if (c.input != stdin)
        fclose(c.input);
    if (status == wrong_usage)
        print_usage();
    return fflush(stdout) == 0 ? status : 1;
}
