#include "uci_cli.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

int fail_with(const cli &c, int err) {
    c.ctx->err = err;
    return fail(c);
}

bool complete(const uci_ptr &place) {
    return place.flags & uci_ptr::UCI_LOOKUP_COMPLETE;
}

// What `show`, `export`, `commit` and `changes` do with one package, or with a place in it.
using package_action = int (*)(const cli &c, uci_ptr &place);

int show(const cli &c, uci_ptr &place) {
    if (!complete(place))
        return fail_with(c, UCI_ERR_NOTFOUND);
    if (place.o)
        show_option(c, place.o);
    else if (place.s)
        show_section(c, place.s);
    else
        show_package(c, place.p);
    return 0;
}

int export_package(const cli &c, uci_ptr &place) {
    return uci_export(c.ctx, stdout, place.p, true) == UCI_OK ? 0 : fail(c);
}

int commit(const cli &c, uci_ptr &place) {
    return c.no_commit || uci_commit(c.ctx, &place.p, false) == UCI_OK ? 0 : fail(c);
}

int changes(const cli &, uci_ptr &place) {
    show_changes(place.p);
    return 0;
}

int with_place(const cli &c, char *text, package_action action) {
    uci_ptr place;
    if (uci_lookup_ptr(c.ctx, &place, text, true) != UCI_OK)
        return fail(c);
    const int status = action(c, place);
    if (place.p)
        uci_unload(c.ctx, place.p);
    return status;
}

// Over all packages a bad one is reported, and is no failure.
int each_package(const cli &c, char **argv, package_action action) {
    if (argv[0])
        return with_place(c, argv[0], action);
    char **names = nullptr;
    if (uci_list_configs(c.ctx, &names) != UCI_OK)
        return fail(c);
    const std::unique_ptr<char *, decltype(&free)> owner(names, free);
    for (; *names; names++)
        with_place(c, *names, action);
    return 0;
}

int run_show(const cli &c, char **argv) {
    return each_package(c, argv, show);
}

int run_export(const cli &c, char **argv) {
    return each_package(c, argv, export_package);
}

int run_commit(const cli &c, char **argv) {
    return each_package(c, argv, commit);
}

int run_changes(const cli &c, char **argv) {
    return each_package(c, argv, changes);
}

int run_get(const cli &c, char **argv) {
    uci_ptr place;
    if (uci_lookup_ptr(c.ctx, &place, argv[0], true) != UCI_OK)
        return fail(c);
    if (place.value)
        return 1;
    if (!complete(place))
        return fail_with(c, UCI_ERR_NOTFOUND);
    if (place.o)
        print_value(c, place.o, false);
    else if (place.s)
        printf("%s\n", place.s->type);
    return 0;
}

int run_revert(const cli &c, char **argv) {
    uci_ptr place;
    if (uci_lookup_ptr(c.ctx, &place, argv[0], true) != UCI_OK)
        return fail(c);
    if (place.value)
        return 1;
    return uci_revert(c.ctx, &place) == UCI_OK ? 0 : fail(c);
}

// Applies one of the library's changes to the argument's place and stages it.
int change(const cli &c, char *text, int (*apply)(uci_context *, uci_ptr *)) {
    uci_ptr place;
    if (uci_lookup_ptr(c.ctx, &place, text, true) != UCI_OK)
        return fail(c);
    int number;
    if (apply == uci_delete && place.value && sscanf(place.value, "%d", &number) == 0)
        return 1;
    if (apply(c.ctx, &place) != UCI_OK || uci_save(c.ctx, place.p) != UCI_OK)
        return fail(c);
    return 0;
}

int run_set(const cli &c, char **argv) {
    return change(c, argv[0], uci_set);
}

int run_add_list(const cli &c, char **argv) {
    return change(c, argv[0], uci_add_list);
}

int run_del_list(const cli &c, char **argv) {
    return change(c, argv[0], uci_del_list);
}

int run_rename(const cli &c, char **argv) {
    return change(c, argv[0], uci_rename);
}

int run_reorder(const cli &c, char **argv) {
    return change(c, argv[0], [](uci_context *ctx, uci_ptr *place) -> int {
        if (!place->s || !place->value)
            return ctx->err = UCI_ERR_NOTFOUND;
        return uci_reorder_section(ctx, place->s, static_cast<int>(strtoul(place->value, nullptr, 10)));
    });
}

int run_delete(const cli &c, char **argv) {
    return change(c, argv[0], uci_delete);
}

int run_add(const cli &c, char **argv) {
    uci_package *p = nullptr;
    uci_section *s = nullptr;
    int rc = uci_load(c.ctx, argv[0], &p);
    if (rc == UCI_OK)
        rc = uci_add_section(c.ctx, p, argv[1], &s);
    if (rc == UCI_OK)
        rc = uci_save(c.ctx, p);
    if (rc != UCI_OK) {
        fail(c);
        return rc;
    }
    printf("%s\n", s->e.name);
    return 0;
}

int run_import(const cli &c, char **argv) {
    const char *name = argv[0];
    if (c.merge && !name)
        return wrong_usage;
    uci_package *merged = nullptr;
    if (c.merge && uci_load(c.ctx, name, &merged) != UCI_OK)
        merged = nullptr;
    uci_package *p = merged;
    if (uci_import(c.ctx, c.input, name, &p, name != nullptr) != UCI_OK)
        return fail(c);
    if (merged)
        return uci_save(c.ctx, merged) == UCI_OK ? 0 : fail(c);
    uci_element *e, *next;
    uci_foreach_element_safe(&c.ctx->root, next, e) {
        p = uci_to_package(e);
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
    int (*run)(const cli &c, char **argv); // null: not run from here
};

constexpr command commands[] = {
    {"get", 1, 1, "<config>.<section>[.<option>]", run_get},
    {"set", 1, 1, "<config>.<section>[.<option>]=<value>", run_set},
    {"add", 2, 2, "<config> <type of the new section>", run_add},
    {"add_list", 1, 1, "<config>.<section>.<option>=<value>", run_add_list},
    {"del_list", 1, 1, "<config>.<section>.<option>=<value>", run_del_list},
    {"delete", 1, 1, "<config>.<section>[.<option>[=<number of the value in the list>]]", run_delete},
    {"rename", 1, 1, "<config>.<section>[.<option>]=<name>", run_rename},
    {"reorder", 1, 1, "<config>.<section>=<place, from 0>", run_reorder},
    {"commit", 0, 1, "[<config>]", run_commit},
    {"revert", 1, 1, "<config>[.<section>[.<option>]]", run_revert},
    {"show", 0, 1, "[<config>[.<section>[.<option>]]]", run_show},
    {"changes", 0, 1, "[<config>]", run_changes},
    {"export", 0, 1, "[<config>]", run_export},
    {"import", 0, 1, "[<config>]", run_import},
    {"batch", 0, 0, "(a command a line)", nullptr},
};

} // namespace

int fail(const cli &c) {
    if (c.line >= 0 && c.ctx->err == UCI_ERR_PARSE && !c.ctx->reason) {
        c.ctx->reason = "unknown";
        c.ctx->line = c.line;
        c.ctx->byte = 0;
    }
    if (!c.quiet)
        uci_perror(c.ctx, "uci");
    return 1;
}

void print_commands(FILE *stream) {
    for (const auto &known : commands)
        fprintf(stream, "  %-9s %s\n", known.name, known.arguments);
}

int run_command(const cli &c, int argc, char **argv) {
    for (const auto &known : commands) {
        if (known.run && strcmp(argv[0], known.name) == 0 && argc - 1 >= known.min_args &&
            argc - 1 <= known.max_args)
            return known.run(c, argv + 1);
    }
    return wrong_usage;
}
