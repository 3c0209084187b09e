// Packages, sections, options and items: making, freeing, finding by name.
#include "uci_internal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ucilib {

namespace {

bool is_name_byte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// A zeroed record whose first member is its element, at the end of the list (if any).
template <typename T> T *record_new(uci_list *list, uci_type type, std::string_view name) {
    auto *record = static_cast<T *>(calloc(1, sizeof(T)));
    if (!record)
        throw std::bad_alloc();
    auto *e = list_to_element(record);
    list_init(&e->list);
    e->type = type;
    try {
        e->name = text_dup(name);
    } catch (...) {
        free(record);
        throw;
    }
    if (list)
        list_append(list, &e->list);
    return record;
}

void element_free(uci_element *e) {
    list_remove(&e->list);
    free(e->name);
    free(e);
}

// The name that other programs, too, compute for an anonymous section of this number and type.
std::string anonymous_name(int number, std::string_view type) {
    unsigned hash = 5381;
    for (char c : type)
        hash = hash * 33 + static_cast<unsigned char>(c);
    char name[32];
    snprintf(name, sizeof(name), "cfg%02x%04x", static_cast<unsigned>(number), hash & 0xffff);
    return name;
}

} // namespace

char *text_dup(std::string_view text) {
    if (!text.data())
        return nullptr;
    auto *copy = static_cast<char *>(malloc(text.size() + 1));
    if (!copy)
        throw std::bad_alloc();
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

void text_replace(char *&text, std::string_view value) {
    char *copy = text_dup(value);
    free(text);
    text = copy;
}

void list_init(uci_list *list) {
    list->next = list;
    list->prev = list;
}

void list_append(uci_list *list, uci_list *entry) {
    entry->next = list;
    entry->prev = list->prev;
    list->prev->next = entry;
    list->prev = entry;
}

void list_remove(uci_list *entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    list_init(entry);
}

bool valid_name(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_name_byte);
}

bool valid_package_name(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c == '-' || is_name_byte(c); });
}

bool valid_file_name(std::string_view text) {
    return !text.empty() && text[0] != '.' && text.find('/') == std::string_view::npos;
}

bool valid_type(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c > 32 && c < 127; });
}

bool valid_value(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) >= ' ' || c == '\t' || c == '\r' || c == '\n';
    });
}

void package_deleter::operator()(uci_package *p) const {
    uci_element *e, *next;
    uci_foreach_element_safe(&p->sections, next, e) section_free(uci_to_section(e));
    delta_list_clear(&p->delta);
    delta_list_clear(&p->saved_delta);
    free(p->path);
    element_free(&p->e);
}

package_handle package_new(uci_context *ctx, std::string_view name) {
    auto *p = record_new<uci_package>(nullptr, UCI_TYPE_PACKAGE, name);
    list_init(&p->sections);
    list_init(&p->delta);
    list_init(&p->saved_delta);
    p->ctx = ctx;
    return package_handle(p);
}

uci_section *section_new(uci_package *p, std::string_view type, std::string_view name) {
    if (p->n_section >= max_sections)
        return nullptr;
    int number = p->n_section + 1;
    std::string own_name(name.empty() ? anonymous_name(number, type) : name);
    auto *s = record_new<uci_section>(&p->sections, UCI_TYPE_SECTION, own_name);
    list_init(&s->options);
    s->package = p;
    s->anonymous = name.empty();
    try {
        s->type = text_dup(type);
    } catch (...) {
        element_free(&s->e);
        throw;
    }
    p->n_section = number;
    return s;
}

uci_option *option_new(uci_section *s, std::string_view name, uci_option_type type) {
    size_t count = 0;
    uci_element *e;
    uci_foreach_element(&s->options, e) count++;
    if (count >= max_options)
        return nullptr;
    auto *o = record_new<uci_option>(&s->options, UCI_TYPE_OPTION, name);
    o->section = s;
    o->type = UCI_TYPE_LIST;
    list_init(&o->v.list);
    try {
        if (type == UCI_TYPE_STRING)
            option_set_string(o, "");
    } catch (...) {
        option_free(o);
        throw;
    }
    return o;
}

uci_element *item_new(uci_list *list, uci_type type, std::string_view text) {
    return record_new<uci_element>(list, type, text);
}

uci_delta *delta_new(uci_list *list, uci_command cmd, std::string_view section, std::string_view option,
                     std::string_view value) {
    using text_handle = std::unique_ptr<char, decltype(&free)>;
    text_handle own_section(text_dup(section), free), own_value(text_dup(value), free);
    auto *delta = record_new<uci_delta>(list, UCI_TYPE_DELTA, option);
    delta->cmd = cmd;
    delta->section = own_section.release();
    delta->value = own_value.release();
    return delta;
}

void section_free(uci_section *s) {
    uci_element *e, *next;
    uci_foreach_element_safe(&s->options, next, e) option_free(uci_to_option(e));
    free(s->type);
    element_free(&s->e);
}

void option_free(uci_option *o) {
    if (o->type == UCI_TYPE_LIST)
        item_list_clear(&o->v.list);
    else
        free(o->v.string);
    element_free(&o->e);
}

void item_list_clear(uci_list *list) {
    uci_element *e, *next;
    uci_foreach_element_safe(list, next, e) element_free(e);
}

void delta_list_clear(uci_list *list) {
    uci_element *e, *next;
    uci_foreach_element_safe(list, next, e) {
        auto *delta = uci_to_delta(e);
        free(delta->section);
        free(delta->value);
        element_free(e);
    }
}

void option_set_string(uci_option *o, std::string_view value) {
    char *copy = text_dup(value);
    if (o->type == UCI_TYPE_LIST)
        item_list_clear(&o->v.list);
    else
        free(o->v.string);
    o->type = UCI_TYPE_STRING;
    o->v.string = copy;
}

void option_add_item(uci_option *o, std::string_view value) {
    if (o->type == UCI_TYPE_LIST) {
        item_new(&o->v.list, UCI_TYPE_ITEM, value);
        return;
    }
    // A text becomes the first item of the list.
    uci_list items;
    list_init(&items);
    try {
        item_new(&items, UCI_TYPE_ITEM, o->v.string);
        item_new(&items, UCI_TYPE_ITEM, value);
    } catch (...) {
        item_list_clear(&items);
        throw;
    }
    free(o->v.string);
    o->type = UCI_TYPE_LIST;
    o->v.list = items;
    items.next->prev = &o->v.list;
    items.prev->next = &o->v.list;
}

} // namespace ucilib

uci_element *uci_lookup_list(uci_list *list, const char *name) {
    if (!list || !name)
        return nullptr;
    uci_element *e;
    uci_foreach_element(list, e) {
        if (e->name && strcmp(e->name, name) == 0)
            return e;
    }
    return nullptr;
}

uci_package *uci_lookup_package(uci_context *ctx, const char *name) {
    return ctx ? uci_to_package(uci_lookup_list(&ctx->root, name)) : nullptr;
}

uci_section *uci_lookup_section(uci_context *, uci_package *p, const char *name) {
    return p ? uci_to_section(uci_lookup_list(&p->sections, name)) : nullptr;
}

uci_option *uci_lookup_option(uci_context *, uci_section *s, const char *name) {
    return s ? uci_to_option(uci_lookup_list(&s->options, name)) : nullptr;
}

const char *uci_lookup_option_string(uci_context *ctx, uci_section *s, const char *name) {
    const uci_option *o = uci_lookup_option(ctx, s, name);
    return o && o->type == UCI_TYPE_STRING ? o->v.string : nullptr;
}
