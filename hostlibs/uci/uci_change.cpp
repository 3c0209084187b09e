// Changes of a package in memory, and their record for the next save.
#include "uci_internal.h"

#include <cstdio>
#include <cstring>

namespace ucilib {

namespace {

void record(uci_package *p, uci_command cmd, const char *section, const char *option, const char *value) {
    if (p->has_delta)
        delta_new(&p->delta, cmd, section, option ? option : std::string_view(),
                  value ? value : std::string_view());
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
    if (!ptr->s && !(ptr->s = section_new(ptr->p, ptr->value, ptr->section)))
        return UCI_ERR_INVAL;
    ptr->last = &ptr->s->e;
    text_replace(ptr->s->type, ptr->value);
    ptr->s->anonymous = false;
    return UCI_OK;
}

// The option of ptr, made when missing. Null when the section is full.
uci_option *wanted_option(uci_ptr *ptr, uci_option_type type) {
    if (!ptr->o)
        ptr->o = option_new(ptr->s, ptr->option, type);
    if (ptr->o)
        ptr->last = &ptr->o->e;
    return ptr->o;
}

bool same_text(const uci_option *o, const char *value) {
    return o && o->type == UCI_TYPE_STRING && strcmp(o->v.string, value) == 0;
}

// The item of that number, or null.
uci_element *item_at(uci_option *o, int index) {
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

int change_set_type(uci_ptr *ptr) {
    if (!valid_type(ptr->value))
        return UCI_ERR_INVAL;
    if (ptr->s && strcmp(ptr->s->type, ptr->value) == 0)
        return UCI_OK;
    if (set_section(ptr) != UCI_OK)
        return UCI_ERR_INVAL;
    record(ptr->p, UCI_CMD_CHANGE, ptr->s->e.name, nullptr, ptr->value);
    return UCI_OK;
}

int change_set(uci_ptr *ptr) {
    const int rc = resolve(ptr);
    if (rc != UCI_OK)
        return rc;
    const bool of_option = ptr->option || ptr->o;
    if (!ptr->value || (of_option && !ptr->s))
        return UCI_ERR_INVAL;
    if (!ptr->value[0]) {
        ptr->value = nullptr;
        return (of_option ? ptr->o != nullptr : ptr->s != nullptr) ? change_delete(ptr) : int{UCI_OK};
    }
    if (!of_option)
        return change_set_type(ptr);
    if (same_text(ptr->o, ptr->value))
        return UCI_OK;
    auto *o = wanted_option(ptr, UCI_TYPE_STRING);
    if (!o)
        return UCI_ERR_INVAL;
    option_set_string(o, ptr->value);
    record(ptr->p, UCI_CMD_CHANGE, ptr->s->e.name, o->e.name, ptr->value);
    return UCI_OK;
}

int change_add_section(uci_ptr *ptr) {
    ptr->s = section_new(ptr->p, ptr->value, {});
    if (!ptr->s)
        return UCI_ERR_INVAL;
    record(ptr->p, UCI_CMD_ADD, ptr->s->e.name, nullptr, ptr->value);
    return UCI_OK;
}

int change_add_list(uci_ptr *ptr) {
    const int rc = resolve(ptr);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->value || !ptr->s)
        return UCI_ERR_INVAL;
    if (!ptr->option && !ptr->o) { // whoever reads it passes it over
        record(ptr->p, UCI_CMD_LIST_ADD, ptr->s->e.name, nullptr, ptr->value);
        return UCI_OK;
    }
    auto *o = wanted_option(ptr, UCI_TYPE_LIST);
    if (!o)
        return UCI_ERR_INVAL;
    option_add_item(o, ptr->value);
    record(ptr->p, UCI_CMD_LIST_ADD, ptr->s->e.name, o->e.name, ptr->value);
    return UCI_OK;
}

int change_del_list(uci_ptr *ptr) {
    const int rc = resolve(ptr);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->value || !ptr->s)
        return UCI_ERR_INVAL;
    if (!ptr->o || ptr->o->type != UCI_TYPE_LIST)
        return UCI_OK;
    record(ptr->p, UCI_CMD_LIST_DEL, ptr->s->e.name, ptr->o->e.name, ptr->value);
    uci_element *item, *next;
    uci_foreach_element_safe(&ptr->o->v.list, next, item) {
        if (strcmp(item->name, ptr->value) == 0)
            item_delete(item);
    }
    return UCI_OK;
}

// The new name is not looked at: whoever reads the staged change does, and passes a bad one over.
int change_rename(uci_ptr *ptr) {
    const int rc = resolve_existing(ptr);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->value)
        return UCI_ERR_INVAL;
    uci_element *e = ptr->o ? &ptr->o->e : &ptr->s->e;
    record(ptr->p, UCI_CMD_RENAME, ptr->s->e.name, ptr->o ? ptr->o->e.name : nullptr, ptr->value);
    text_replace(e->name, ptr->value);
    (ptr->o ? ptr->option : ptr->section) = e->name;
    if (!ptr->o)
        ptr->s->anonymous = false;
    return UCI_OK;
}

int change_delete(uci_ptr *ptr) {
    const int rc = resolve_existing(ptr);
    if (rc != UCI_OK)
        return rc;
    if (ptr->o && ptr->o->type == UCI_TYPE_LIST && ptr->value && ptr->value[0]) {
        int index;
        if (sscanf(ptr->value, "%d", &index) == 0)
            return UCI_ERR_INVAL;
        if (auto *item = item_at(ptr->o, index)) {
            record(ptr->p, UCI_CMD_REMOVE, ptr->s->e.name, ptr->o->e.name, ptr->value);
            item_delete(item);
        }
        return UCI_OK;
    }
    record(ptr->p, UCI_CMD_REMOVE, ptr->s->e.name, ptr->o ? ptr->o->e.name : nullptr, nullptr);
    if (ptr->o) {
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

void change_reorder(uci_section *s, int pos) {
    const uci_list *before = s->e.list.prev;
    list_remove(&s->e.list);
    uci_list *after = &s->package->sections;
    for (int i = 0; i < pos && after->next != &s->package->sections; i++)
        after = after->next;
    list_append(after->next, &s->e.list);
    if (s->e.list.prev != before)
        record(s->package, UCI_CMD_REORDER, s->e.name, nullptr, std::to_string(pos).c_str());
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
        if (!p || !type)
            return int{UCI_ERR_INVAL};
        uci_ptr place{};
        place.p = p;
        place.value = type;
        const int rc = change_add_section(&place);
        if (res)
            *res = place.s;
        return rc;
    });
}

int uci_reorder_section(uci_context *ctx, uci_section *s, int pos) {
    return ucilib::guarded(ctx, [&] {
        if (!s)
            return int{UCI_ERR_INVAL};
        ucilib::change_reorder(s, pos);
        return int{UCI_OK};
    });
}
