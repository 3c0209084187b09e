// Finding a place by its text: "package.section.option", section also as "@type[n]".
#include "uci_internal.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace ucilib {

namespace {

void add_flag(uci_ptr *ptr, int flag) {
    ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags | flag);
}

// Takes "@type[n]" apart; an empty type means any.
bool parse_extended(const char *text, std::string &type, long &index) {
    const char *bracket = strchr(text, '[');
    if (!bracket || text[0] != '@')
        return false;
    type.assign(text + 1, bracket);
    char *end;
    index = strtol(bracket + 1, &end, 10); // no number is 0
    return strcmp(end, "]") == 0 && index > INT_MIN && index < INT_MAX;
}

uci_section *find_extended(uci_package *p, const std::string &type, long index) {
    long count = 0;
    uci_element *e;
    auto matches = [&] { return type.empty() || type == uci_to_section(e)->type; };
    if (index < 0) {
        uci_foreach_element(&p->sections, e) count += matches();
        index += count;
    }
    uci_foreach_element(&p->sections, e) {
        if (matches() && index-- == 0)
            return uci_to_section(e);
    }
    return nullptr;
}

int find_section(uci_ptr *ptr, bool extended) {
    if (!(ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED)) {
        ptr->s = uci_lookup_section(nullptr, ptr->p, ptr->section);
        return UCI_OK;
    }
    std::string type;
    long index;
    if (!extended || !parse_extended(ptr->section, type, index))
        return UCI_ERR_INVAL;
    ptr->s = find_extended(ptr->p, type, index);
    if (ptr->s)
        ptr->section = ptr->s->e.name;
    return UCI_OK;
}

int find(uci_context *ctx, uci_ptr *ptr, bool extended) {
    if (!ptr->p)
        ptr->p = uci_lookup_package(ctx, ptr->package);
    if (!ptr->p) {
        int rc = uci_load(ctx, ptr->package, &ptr->p);
        if (rc != UCI_OK)
            return rc;
    }
    ptr->last = &ptr->p->e;
    if (ptr->section) {
        int rc = find_section(ptr, extended);
        if (rc != UCI_OK || !ptr->s)
            return rc;
        ptr->last = &ptr->s->e;
    }
    if (ptr->option) {
        ptr->o = uci_lookup_option(ctx, ptr->s, ptr->option);
        if (!ptr->o)
            return UCI_OK;
        ptr->last = &ptr->o->e;
    }
    add_flag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

} // namespace

} // namespace ucilib

int uci_lookup_ptr(uci_context *ctx, uci_ptr *ptr, char *str, bool extended) {
    using namespace ucilib;
    if (!ctx || !ptr)
        return UCI_ERR_INVAL;
    ctx->reason = nullptr;
    // The load inside is a call of its own: its parse error must stay in the context.
    int rc = UCI_OK;
    if (str)
        rc = split_place(ptr, str) ? UCI_OK : UCI_ERR_PARSE;
    else if (!ptr->package || (ptr->option && !ptr->section))
        rc = UCI_ERR_INVAL;
    if (rc == UCI_OK) {
        add_flag(ptr, uci_ptr::UCI_LOOKUP_DONE);
        try {
            rc = find(ctx, ptr, extended);
        } catch (const std::bad_alloc &) {
            rc = UCI_ERR_MEM;
        }
    }
    return ctx->err = rc;
}
