// Packages as text.
#include "uci_internal.h"

namespace ucilib {

namespace {

void print_line(std::string &out, std::string_view word, const char *name, const char *value) {
    out += '\t';
    out += word;
    out += ' ';
    out += name;
    out += ' ';
    print_quoted(out, value);
    out += '\n';
}

void print_option(std::string &out, uci_option *o) {
    if (o->type == UCI_TYPE_STRING) {
        print_line(out, "option", o->e.name, o->v.string);
        return;
    }
    uci_element *item;
    uci_foreach_element(&o->v.list, item) print_line(out, "list", o->e.name, item->name);
}

void print_section(std::string &out, uci_section *s, bool all_names) {
    const std::string_view type = s->type;
    out += "\nconfig ";
    if (type.find_first_of("'\"\\#;") == std::string_view::npos)
        out += type;
    else
        print_quoted(out, type);
    if (!s->anonymous || all_names) {
        out += ' ';
        print_quoted(out, s->e.name);
    }
    out += '\n';
    uci_element *e;
    uci_foreach_element(&s->options, e) print_option(out, uci_to_option(e));
}

} // namespace

void print_quoted(std::string &out, std::string_view value) {
    out += '\'';
    for (char c : value) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
}

void print_package(std::string &out, uci_package *p, bool header, bool all_names) {
    if (header) {
        out += "package ";
        out += p->e.name;
        out += '\n';
    }
    uci_element *e;
    uci_foreach_element(&p->sections, e) print_section(out, uci_to_section(e), all_names);
    out += '\n';
}

} // namespace ucilib

int uci_export(uci_context *ctx, FILE *stream, uci_package *package, bool header) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (!stream)
            return static_cast<int>(UCI_ERR_INVAL);
        const bool all_names = ctx->flags & UCI_FLAG_EXPORT_NAME;
        std::string out;
        if (package) {
            print_package(out, package, header, all_names);
        } else {
            uci_element *e;
            uci_foreach_element(&ctx->root, e) print_package(out, uci_to_package(e), header, all_names);
        }
        return static_cast<int>(fwrite(out.data(), 1, out.size(), stream) == out.size() ? UCI_OK
                                                                                        : UCI_ERR_IO);
    });
}
