#include "uci_cli.h"

#include <cstring>
#include <string>

static void print_quoted(const char *value) {
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

// "@type[n]" of an anonymous section.
static std::string name_by_type(uci_section *s) {
    int index = 0;
    uci_element *e;
    uci_foreach_element(&s->package->sections, e) {
        if (e == &s->e)
            break;
        index += strcmp(uci_to_section(e)->type, s->type) == 0;
    }
    return "@" + std::string(s->type) + "[" + std::to_string(index) + "]";
}

static void print_option(const cli &c, uci_option *o, const std::string &section) {
    printf("%s.%s.%s=", o->section->package->e.name, section.c_str(), o->e.name);
    print_value(c, o, true);
}

static void print_section(const cli &c, uci_section *s, const std::string &name) {
    printf("%s.%s=%s\n", s->package->e.name, name.c_str(), s->type);
    uci_element *e;
    uci_foreach_element(&s->options, e) print_option(c, uci_to_option(e), name);
}

void show_option(const cli &c, uci_option *o) {
    print_option(c, o, o->section->e.name);
}

void show_section(const cli &c, uci_section *s) {
    print_section(c, s, s->e.name);
}

void show_package(const cli &c, uci_package *p) {
    uci_element *e;
    uci_foreach_element(&p->sections, e) {
        auto *s = uci_to_section(e);
        print_section(c, s, s->anonymous && c.by_type ? name_by_type(s) : s->e.name);
    }
}

static const char *change_sign(uci_command cmd) {
    switch (cmd) {
    case UCI_CMD_LIST_ADD:
        return "+=";
    case UCI_CMD_LIST_DEL:
        return "-=";
    default:
        return "=";
    }
}

void show_changes(uci_package *p) {
    uci_element *e;
    uci_foreach_element(&p->saved_delta, e) {
        const auto *change = uci_to_delta(e);
        const bool removal = change->cmd == UCI_CMD_REMOVE;
        printf("%s%s.%s", removal ? "-" : "", p->e.name, change->section);
        if (change->e.name)
            printf(".%s", change->e.name);
        if (!removal && change->value) {
            fputs(change_sign(change->cmd), stdout);
            print_quoted(change->value);
        }
        putchar('\n');
    }
}
