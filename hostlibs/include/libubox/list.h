/* Doubly linked lists whose links stand inside the records; the head is a link of its own. */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include <stdbool.h>
#include <stddef.h>

#ifndef container_of
#define container_of(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))
#endif

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

/* <sys/queue.h> has another macro of this name. */
#undef LIST_HEAD
#define LIST_HEAD_INIT(name) \
    { &(name), &(name) }
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head *head) {
    head->next = head;
    head->prev = head;
}

static inline bool list_empty(const struct list_head *head) {
    return head->next == head;
}

static inline bool list_is_first(const struct list_head *entry, const struct list_head *head) {
    return entry->prev == head;
}

static inline bool list_is_last(const struct list_head *entry, const struct list_head *head) {
    return entry->next == head;
}

/* Links the chain first..last between two neighbours. */
static inline void list_link_between(struct list_head *first, struct list_head *last, struct list_head *prev,
                                     struct list_head *next) {
    first->prev = prev;
    last->next = next;
    prev->next = first;
    next->prev = last;
}

/* Adds behind `head`: as the first entry, or behind another entry. */
static inline void list_add(struct list_head *entry, struct list_head *head) {
    list_link_between(entry, entry, head, head->next);
}

/* Adds in front of `head`: as the last entry, or in front of another entry. */
static inline void list_add_tail(struct list_head *entry, struct list_head *head) {
    list_link_between(entry, entry, head->prev, head);
}

/* Takes the entry out; its links are null afterwards. */
static inline void list_del(struct list_head *entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = NULL;
    entry->prev = NULL;
}

/* Takes the entry out; it is an empty list afterwards. */
static inline void list_del_init(struct list_head *entry) {
    list_del(entry);
    INIT_LIST_HEAD(entry);
}

static inline void list_move(struct list_head *entry, struct list_head *head) {
    list_del(entry);
    list_add(entry, head);
}

static inline void list_move_tail(struct list_head *entry, struct list_head *head) {
    list_del(entry);
    list_add_tail(entry, head);
}

/* Moves the entries of `list` in front of those of `head`; `list` itself is left as it was. */
static inline void list_splice(const struct list_head *list, struct list_head *head) {
    if (!list_empty(list))
        list_link_between(list->next, list->prev, head, head->next);
}

/* Moves the entries of `list` behind those of `head`; `list` itself is left as it was. */
static inline void list_splice_tail(const struct list_head *list, struct list_head *head) {
    if (!list_empty(list))
        list_link_between(list->next, list->prev, head->prev, head);
}

static inline void list_splice_init(struct list_head *list, struct list_head *head) {
    list_splice(list, head);
    INIT_LIST_HEAD(list);
}

static inline void list_splice_tail_init(struct list_head *list, struct list_head *head) {
    list_splice_tail(list, head);
    INIT_LIST_HEAD(list);
}

#define list_entry(ptr, type, field) container_of(ptr, type, field)
#define list_first_entry(head, type, field) list_entry((head)->next, type, field)
#define list_last_entry(head, type, field) list_entry((head)->prev, type, field)

#define list_for_each(p, head) for ((p) = (head)->next; (p) != (head); (p) = (p)->next)
#define list_for_each_prev(p, head) for ((p) = (head)->prev; (p) != (head); (p) = (p)->prev)
#define list_for_each_safe(p, n, head) \
    for ((p) = (head)->next, (n) = (p)->next; (p) != (head); (p) = (n), (n) = (p)->next)

/* The _safe forms allow the body to remove (and free) the entry that it is given. */
#define list_for_each_entry(p, head, field)                                            \
    for ((p) = list_first_entry(head, __typeof__(*(p)), field); &(p)->field != (head); \
         (p) = list_entry((p)->field.next, __typeof__(*(p)), field))
#define list_for_each_entry_reverse(p, head, field)                                   \
    for ((p) = list_last_entry(head, __typeof__(*(p)), field); &(p)->field != (head); \
         (p) = list_entry((p)->field.prev, __typeof__(*(p)), field))
#define list_for_each_entry_safe(p, n, head, field)                 \
    for ((p) = list_first_entry(head, __typeof__(*(p)), field),     \
        (n) = list_entry((p)->field.next, __typeof__(*(p)), field); \
         &(p)->field != (head); (p) = (n), (n) = list_entry((n)->field.next, __typeof__(*(n)), field))

#endif
