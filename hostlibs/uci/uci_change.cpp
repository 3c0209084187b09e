// Changes of a package in memory, and their record for the next save.
#include "uci_internal.h"

#include <cstdlib>
#include <cstring>

namespace ucilib {

namespace {

void record(uci_package *p, uci_command cmd, const char *section, const char *option, const char *value) {
    if (p->has_delta)
        delta_new(&p->delta, cmd, section, option ? option : std::string_view(),
                  value ? value : std::string_view());
}

const char *option_name(const uci_ptr *ptr) {
    return ptr->o ? ptr->o->e.name : ptr->option;
}

// Completes ptr from its own elements and names. Section and option may stay unresolved.
int resolve(uci_ptr *ptr) {
    if (ptr->o)
        ptr->s = ptr->o->section;
    if (ptr->s)
        ptr->p = ptr->s->package;
    if (!ptr->p)
        return UCI_ERR_INVAL;
    if (!ptr->s && ptr->section)
        ptr->s = uci_lookup_section(nullptr, ptr->p, ptr->section);
    if (!ptr->o && ptr->s && ptr->option)
        ptr->o = uci_lookup_option(nullptr, ptr->s, ptr->option);
    if (!ptr->s && !ptr->section)
        return UCI_ERR_INVAL;
    return UCI_OK;
}

// As resolve, for a change of what is there already.
int resolve_existing(uci_ptr *ptr) {
    int rc = resolve(ptr);
    if (rc != UCI_OK)
        return rc;
    return ptr->s && (ptr->o || !ptr->option) ? UCI_OK : UCI_ERR_NOTFOUND;
}

int set_section(uci_ptr *ptr) {
    if (!valid_type(ptr->value))
        return UCI_ERR_INVAL;
    if (ptr->s) {
        record(ptr->p, UCI_CMD_CHANGE, ptr->s->e.name, nullptr, ptr->value);
        text_replace(ptr->s->type, ptr->value);
    } else {
        if (!valid_name(ptr->section))
            return UCI_ERR_INVAL;
        ptr->s = section_new(ptr->p, ptr->value, ptr->section);
        if (!ptr->s)
            return UCI_ERR_INVAL;
        record(ptr->p, UCI_CMD_CHANGE, ptr->s->e.name, nullptr, ptr->value);
    }
    ptr->last = &ptr->s->e;
    return UCI_OK;
}

// The option of ptr, made when missing. Null when the name is bad or the section full.
uci_option *wanted_option(uci_ptr *ptr, uci_option_type type) {
    if (!ptr->o && valid_name(ptr->option))
        ptr->o = option_new(ptr->s, ptr->option, type);
    if (ptr->o)
        ptr->last = &ptr->o->e;
    return ptr->o;
}

bool same_text(const uci_option *o, const char *value) {
    return o && o->type == UCI_TYPE_STRING && strcmp(o->v.string, value) == 0;
}

// The item of that number, or null.
uci_element *item_at(uci_option *o, const char *number) {
    char *end;
    long index = strtol(number, &end, 10);
    if (o->type != UCI_TYPE_LIST || *end || end == number || index < 0)
        return nullptr;
    uci_element *item;
    uci_foreach_element(&o->v.list, item) {
        if (index-- == 0)
            return item;
    }
    return nullptr;
}

void item_delete(uci_element *item) {
    uci_list one;
    list_remove(&item->list);
    list_init(&one);
    list_append(&one, &item->list);
    item_list_clear(&one);
}

} // namespace

int change_set(uci_ptr *ptr) {
    int rc = resolve(ptr);
    if (rc != UCI_OK || !ptr->value)
        return rc != UCI_OK ? rc : UCI_ERR_INVAL;
    if (!ptr->option && !ptr->o)
        return set_section(ptr);
    if (!ptr->s)
        return UCI_ERR_NOTFOUND;
    if (!ptr->value[0]) {
        if (!ptr->o)
            return UCI_OK;
        ptr->value = nullptr;
        return change_delete(ptr);
    }
    if (same_text(ptr->o, ptr->value))
        return UCI_OK;
    auto *o = wanted_option(ptr, UCI_TYPE_STRING);
    if (!o)
        return UCI_ERR_INVAL;
    record(ptr->p, UCI_CMD_CHANGE, ptr->s->e.name, o->e.name, ptr->value);
    option_set_string(o, ptr->value);
    return UCI_OK;
}

int change_add_list(uci_ptr *ptr) {
    int rc = resolve(ptr);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->value || (!ptr->option && !ptr->o))
        return UCI_ERR_INVAL;
    if (!ptr->s)
        return UCI_ERR_NOTFOUND;
    auto *o = wanted_option(ptr, UCI_TYPE_LIST);
    if (!o)
        return UCI_ERR_INVAL;
    record(ptr->p, UCI_CMD_LIST_ADD, ptr->s->e.name, o->e.name, ptr->value);
    option_add_item(o, ptr->value);
    return UCI_OK;
}

int change_del_list(uci_ptr *ptr) {
    int rc = resolve_existing(ptr);
    if (rc != UCI_OK)
        return rc == UCI_ERR_NOTFOUND && ptr->s ? UCI_OK : rc;
    if (!ptr->value || !ptr->o)
        return UCI_ERR_INVAL;
    if (ptr->o->type != UCI_TYPE_LIST)
        return UCI_OK;
    record(ptr->p, UCI_CMD_LIST_DEL, ptr->s->e.name, ptr->o->e.name, ptr->value);
    uci_element *item, *next;
    uci_foreach_element_safe(&ptr->o->v.list, next, item) {
        if (strcmp(item->name, ptr->value) == 0)
            item_delete(item);
    }
    return UCI_OK;
}

int change_rename(uci_ptr *ptr) {
    int rc = resolve_existing(ptr);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->value || !valid_name(ptr->value))
        return UCI_ERR_INVAL;
    uci_element *e = ptr->o ? &ptr->o->e : &ptr->s->e;
    uci_element *taken = uci_lookup_list(ptr->o ? &ptr->s->options : &ptr->p->sections, ptr->value);
    if (taken && taken != e)
        return UCI_ERR_DUPLICATE;
    record(ptr->p, UCI_CMD_RENAME, ptr->s->e.name, ptr->o ? ptr->o->e.name : nullptr, ptr->value);
    text_replace(e->name, ptr->value);
    if (ptr->o)
        ptr->option = e->name;
    else
        ptr->section = e->name;
    if (!ptr->o)
        ptr->s->anonymous = false;
    return UCI_OK;
}

int change_delete(uci_ptr *ptr) {
    int rc = resolve_existing(ptr);
    if (rc != UCI_OK)
        return rc;
    uci_element *item = nullptr;
    if (ptr->o && ptr->value && ptr->value[0] && !(item = item_at(ptr->o, ptr->value)))
        return UCI_ERR_NOTFOUND;
    record(ptr->p, UCI_CMD_REMOVE, ptr->s->e.name, ptr->o ? option_name(ptr) : nullptr,
           item ? ptr->value : nullptr);
    if (item && item->list.next != item->list.prev) {
        item_delete(item);
    } else if (ptr->o) {
        option_free(ptr->o);
        ptr->o = nullptr;
        ptr->last = &ptr->s->e;
    } else {
        section_free(ptr->s);
        ptr->s = nullptr;
        ptr->last = &ptr->p->e;
    }
    return UCI_OK;
}

int change_reorder(uci_section *s, int pos) {
    char place[16];
    snprintf(place, sizeof(place), "%d", pos);
    record(s->package, UCI_CMD_REORDER, s->e.name, nullptr, place);
    list_remove(&s->e.list);
    uci_list *after = &s->package->sections;
    for (int i = 0; i < pos && after->next != &s->package->sections; i++)
        after = after->next;
    list_append(after->next, &s->e.list);
    return UCI_OK;
}

} // namespace ucilib

int uci_set(uci_context *ctx, uci_ptr *ptr) {
    return ucilib::guarded(ctx, [&] { return ptr ? ucilib::change_set(ptr) : int{UCI_ERR_INVAL}; });
}

int uci_add_list(uci_context *ctx, uci_ptr *ptr) {
    return ucilib::guarded(ctx, [&] { return ptr ? ucilib::change_add_list(ptr) : int{UCI_ERR_INVAL}; });
}

int uci_del_list(uci_context *ctx, uci_ptr *ptr) {
    return ucilib::guarded(ctx, [&] { return ptr ? ucilib::change_del_list(ptr) : int{UCI_ERR_INVAL}; });
}

int uci_rename(uci_context *ctx, uci_ptr *ptr) {
    return ucilib::guarded(ctx, [&] { return ptr ? ucilib::change_rename(ptr) : int{UCI_ERR_INVAL}; });
}

int uci_delete(uci_context *ctx, uci_ptr *ptr) {
    return ucilib::guarded(ctx, [&] { return ptr ? ucilib::change_delete(ptr) : int{UCI_ERR_INVAL}; });
}

int uci_add_section(uci_context *ctx, uci_package *p, const char *type, uci_section **res) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (res)
            *res = nullptr;
        if (!p || !type || !valid_type(type))
            return int{UCI_ERR_INVAL};
        auto *s = section_new(p, type, {});
        if (!s)
            return int{UCI_ERR_INVAL};
        record(p, UCI_CMD_ADD, s->e.name, nullptr, type);
        if (res)
            *res = s;
        return int{UCI_OK};
    });
}

int uci_reorder_section(uci_context *ctx, uci_section *s, int pos) {
    return ucilib::guarded(
        ctx, [&] { return s && pos >= 0 ? ucilib::change_reorder(s, pos) : int{UCI_ERR_INVAL}; });
}
