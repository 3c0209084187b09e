// The `uci` command: one command a call; changes are staged until `commit`.
#include <uci.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <unistd.h>

namespace {

struct cli {
    uci_context *ctx;
    bool quiet;
    bool plain_names; // show anonymous sections by their generated names
    const char *delimiter;
    FILE *input;
};

constexpr int usage_error = -1;

int fail(const cli &c) {
    if (!c.quiet)
        uci_perror(c.ctx, "uci");
    return 1;
}

int fail_with(const cli &c, int err) {
    c.ctx->err = err;
    return fail(c);
}

void print_quoted(const char *value) {
    putchar('\'');
    for (; *value; value++) {
        if (*value == '\'')
            fputs("'\\''", stdout);
        else
            putchar(*value);
    }
    putchar('\'');
}

// Items of a list that would be taken for several are quoted in any case.
void print_value(const cli &c, uci_option *o, bool quote) {
    if (o->type == UCI_TYPE_STRING) {
        if (quote)
            print_quoted(o->v.string);
        else
            fputs(o->v.string, stdout);
    } else {
        uci_element *item;
        uci_foreach_element(&o->v.list, item) {
            if (&item->list != o->v.list.next)
                fputs(c.delimiter, stdout);
            if (quote || strpbrk(item->name, " \t\r\n"))
                print_quoted(item->name);
            else
                fputs(item->name, stdout);
        }
    }
    putchar('\n');
}

// The name that `show` gives a section: "@type[n]" when it has none of its own.
std::string shown_name(const cli &c, uci_section *s) {
    if (!s->anonymous || c.plain_names)
        return s->e.name;
    int index = 0;
    uci_element *e;
    uci_foreach_element(&s->package->sections, e) {
        if (e == &s->e)
            break;
        index += strcmp(uci_to_section(e)->type, s->type) == 0;
    }
    return "@" + std::string(s->type) + "[" + std::to_string(index) + "]";
}

void show_option(const cli &c, uci_option *o, const std::string &section) {
    printf("%s.%s.%s=", o->section->package->e.name, section.c_str(), o->e.name);
    print_value(c, o, true);
}

void show_section(const cli &c, uci_section *s) {
    const std::string name = shown_name(c, s);
    printf("%s.%s=%s\n", s->package->e.name, name.c_str(), s->type);
    uci_element *e;
    uci_foreach_element(&s->options, e) show_option(c, uci_to_option(e), name);
}

void show_package(const cli &c, uci_package *p) {
    uci_element *e;
    uci_foreach_element(&p->sections, e) show_section(c, uci_to_section(e));
}

void show_changes(const cli &, uci_package *p) {
    uci_element *e;
    uci_foreach_element(&p->saved_delta, e) {
        const auto *delta = uci_to_delta(e);
        printf("%s%s.%s", delta->cmd == UCI_CMD_REMOVE ? "-" : "", p->e.name, delta->section);
        if (delta->e.name)
            printf(".%s", delta->e.name);
        if (delta->value) {
            fputs(delta->cmd == UCI_CMD_LIST_ADD   ? "+="
                  : delta->cmd == UCI_CMD_LIST_DEL ? "-="
                                                   : "=",
                  stdout);
            print_quoted(delta->value);
        }
        putchar('\n');
    }
}

int export_package(const cli &c, uci_package *p) {
    return uci_export(c.ctx, stdout, p, true) == UCI_OK ? 0 : fail(c);
}

int commit_package(const cli &c, uci_package *p) {
    return uci_commit(c.ctx, &p, false) == UCI_OK ? 0 : fail(c);
}

// Runs the action on the named package, or on every one.
int each_package(const cli &c, int argc, char **argv, int (*action)(const cli &, uci_package *)) {
    if (argc > 0) {
        uci_ptr ptr;
        if (uci_lookup_ptr(c.ctx, &ptr, argv[0], true) != UCI_OK)
            return fail(c);
        return ptr.section ? fail_with(c, UCI_ERR_INVAL) : action(c, ptr.p);
    }
    char **names = nullptr;
    if (uci_list_configs(c.ctx, &names) != UCI_OK)
        return fail(c);
    std::unique_ptr<char *, decltype(&free)> owner(names, free);
    int rc = 0;
    for (; *names; names++) {
        uci_package *p = nullptr;
        if (uci_load(c.ctx, *names, &p) != UCI_OK)
            rc = fail(c);
        else if (action(c, p) != 0)
            rc = 1;
    }
    return rc;
}

// Looks the argument's place up; prints the reason when there is none.
bool find_place(const cli &c, char *text, uci_ptr *ptr, bool complete) {
    if (uci_lookup_ptr(c.ctx, ptr, text, true) != UCI_OK) {
        fail(c);
        return false;
    }
    if (complete && !(ptr->flags & uci_ptr::UCI_LOOKUP_COMPLETE)) {
        fail_with(c, UCI_ERR_NOTFOUND);
        return false;
    }
    return true;
}

int run_get(const cli &c, int, char **argv) {
    uci_ptr ptr;
    if (!find_place(c, argv[0], &ptr, true))
        return 1;
    if (ptr.o)
        print_value(c, ptr.o, false);
    else if (ptr.s)
        printf("%s\n", ptr.s->type);
    else
        return fail_with(c, UCI_ERR_INVAL);
    return 0;
}

int run_show(const cli &c, int argc, char **argv) {
    if (argc == 0 || !strchr(argv[0], '.'))
        return each_package(c, argc, argv, [](const cli &with, uci_package *p) {
            show_package(with, p);
            return 0;
        });
    uci_ptr ptr;
    if (!find_place(c, argv[0], &ptr, true))
        return 1;
    if (ptr.o)
        show_option(c, ptr.o, shown_name(c, ptr.s));
    else
        show_section(c, ptr.s);
    return 0;
}

int run_changes(const cli &c, int argc, char **argv) {
    return each_package(c, argc, argv, [](const cli &with, uci_package *p) {
        show_changes(with, p);
        return 0;
    });
}

int run_export(const cli &c, int argc, char **argv) {
    return each_package(c, argc, argv, export_package);
}

int run_commit(const cli &c, int argc, char **argv) {
    return each_package(c, argc, argv, commit_package);
}

// Applies one of the library's changes to the argument's place and stages it.
int change(const cli &c, char *text, bool complete, bool with_value, int (*apply)(uci_context *, uci_ptr *)) {
    uci_ptr ptr;
    if (!find_place(c, text, &ptr, complete))
        return 1;
    if (with_value && !ptr.value)
        return fail_with(c, UCI_ERR_INVAL);
    if (apply(c.ctx, &ptr) != UCI_OK || uci_save(c.ctx, ptr.p) != UCI_OK)
        return fail(c);
    return 0;
}

int run_set(const cli &c, int, char **argv) {
    return change(c, argv[0], false, true, uci_set);
}

int run_add_list(const cli &c, int, char **argv) {
    return change(c, argv[0], false, true, uci_add_list);
}

int run_del_list(const cli &c, int, char **argv) {
    return change(c, argv[0], false, true, uci_del_list);
}

int run_rename(const cli &c, int, char **argv) {
    return change(c, argv[0], true, true, uci_rename);
}

int run_delete(const cli &c, int, char **argv) {
    return change(c, argv[0], true, false, uci_delete);
}

int run_add(const cli &c, int, char **argv) {
    uci_package *p = nullptr;
    uci_section *s = nullptr;
    if (uci_load(c.ctx, argv[0], &p) != UCI_OK || uci_add_section(c.ctx, p, argv[1], &s) != UCI_OK ||
        uci_save(c.ctx, p) != UCI_OK)
        return fail(c);
    printf("%s\n", s->e.name);
    return 0;
}

int run_revert(const cli &c, int, char **argv) {
    uci_ptr ptr;
    if (!find_place(c, argv[0], &ptr, false))
        return 1;
    return uci_revert(c.ctx, &ptr) == UCI_OK ? 0 : fail(c);
}

int run_import(const cli &c, int argc, char **argv) {
    if (uci_import(c.ctx, c.input, argc > 0 ? argv[0] : nullptr, nullptr, argc > 0) != UCI_OK)
        return fail(c);
    uci_element *e, *next;
    uci_foreach_element_safe(&c.ctx->root, next, e) {
        uci_package *p = uci_to_package(e);
        if (uci_commit(c.ctx, &p, true) != UCI_OK)
            return fail(c);
    }
    return 0;
}

struct command {
    const char *name;
    int min_args;
    int max_args;
    const char *arguments;
    int (*run)(const cli &c, int argc, char **argv);
};

constexpr command commands[] = {
    {"get", 1, 1, "<config>.<section>[.<option>]", run_get},
    {"set", 1, 1, "<config>.<section>[.<option>]=<value>", run_set},
    {"add", 2, 2, "<config> <section-type>", run_add},
    {"add_list", 1, 1, "<config>.<section>.<option>=<string>", run_add_list},
    {"del_list", 1, 1, "<config>.<section>.<option>=<string>", run_del_list},
    {"delete", 1, 1, "<config>.<section>[.<option>]", run_delete},
    {"rename", 1, 1, "<config>.<section>[.<option>]=<name>", run_rename},
    {"commit", 0, 1, "[<config>]", run_commit},
    {"revert", 1, 1, "<config>[.<section>[.<option>]]", run_revert},
    {"show", 0, 1, "[<config>[.<section>[.<option>]]]", run_show},
    {"changes", 0, 1, "[<config>]", run_changes},
    {"export", 0, 1, "[<config>]", run_export},
    {"import", 0, 1, "[<config>]", run_import},
};

int usage() {
    fprintf(stderr, "Usage: uci [<options>] <command> [<arguments>]\n\nCommands:\n");
    for (const auto &known : commands)
        fprintf(stderr, "  %-9s %s\n", known.name, known.arguments);
    fprintf(stderr, "\nOptions:\n"
                    "  -c <path>  directory of the configuration files (default " UCI_CONFDIR ")\n"
                    "  -d <text>  delimiter of list values\n"
                    "  -f <file>  input of import instead of standard input\n"
                    "  -p <path>  one more directory of staged changes to read\n"
                    "  -P <path>  directory of staged changes, to read and write (default " UCI_SAVEDIR ")\n"
                    "  -q         no error messages\n"
                    "  -X         show and export the names of anonymous sections\n");
    return 1;
}

int run(const cli &c, int argc, char **argv) {
    for (const auto &known : commands) {
        if (argc > 0 && strcmp(argv[0], known.name) == 0 && argc - 1 >= known.min_args &&
            argc - 1 <= known.max_args)
            return known.run(c, argc - 1, argv + 1);
    }
    return usage_error;
}

bool read_option(cli &c, int option, const char *value) {
    switch (option) {
    case 'c':
        return uci_set_confdir(c.ctx, value) == UCI_OK;
    case 'd':
        c.delimiter = value;
        return true;
    case 'f':
        c.input = fopen(value, "re");
        if (!c.input)
            perror("uci");
        return c.input;
    case 'p':
        return uci_add_delta_path(c.ctx, value) == UCI_OK;
    case 'P':
        return uci_add_delta_path(c.ctx, c.ctx->savedir) == UCI_OK && uci_set_savedir(c.ctx, value) == UCI_OK;
    case 'q':
        c.quiet = true;
        return true;
    case 'X':
        c.plain_names = true;
        c.ctx->flags = static_cast<uci_flags>(c.ctx->flags | UCI_FLAG_EXPORT_NAME);
        return true;
    default:
        return false;
    }
}

} // namespace

int main(int argc, char **argv) {
    std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx(uci_alloc_context(), uci_free_context);
    if (!ctx) {
        fprintf(stderr, "uci: Out of memory\n");
        return 1;
    }
    ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_SAVED_DELTA);
    cli c{ctx.get(), false, false, " ", stdin};
    for (int option; (option = getopt(argc, argv, "+c:d:f:p:P:qX")) != -1;) {
        if (!read_option(c, option, optarg))
            return usage();
    }
    int rc = run(c, argc - optind, argv + optind);
    if (c.input && c.input != stdin)
        fclose(c.input);
    if (rc == usage_error)
        return usage();
    return fflush(stdout) == 0 ? rc : 1;
}
