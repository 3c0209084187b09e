/* A balanced tree whose nodes stand inside the records; all nodes are also linked in the order of their keys.
 */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stdbool.h>
#include <stddef.h>

#include "list.h"

/* `key` is set by the owner before avl_insert and must live as long as the node is in a tree. */
struct avl_node {
    struct list_head list;
    struct avl_node *parent;
    struct avl_node *left;
    struct avl_node *right;
    const void *key;
    signed char height;
};

/* Negative, 0 or positive like strcmp; `ptr` is the tree's `cmp_ptr`. */
typedef int (*avl_tree_comp)(const void *k1, const void *k2, void *ptr);

struct avl_tree {
    struct list_head list_head;
    struct avl_node *root;
    unsigned int count;
    bool allow_dups;
    avl_tree_comp comp;
    void *cmp_ptr;
};

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr);

/* The first node of that key in key order, or null. */
struct avl_node *avl_find(const struct avl_tree *tree, const void *key);

/* The first node whose key is not below `key`, or null. */
struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key);

/* The last node whose key is not above `key`, or null. */
struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key);

/* 0, or -1 when the key is there already and the tree allows no duplicates. Equal keys keep insertion order.
 */
int avl_insert(struct avl_tree *tree, struct avl_node *node);

/* The node must be in this tree. */
void avl_delete(struct avl_tree *tree, struct avl_node *node);

static inline bool avl_is_empty(const struct avl_tree *tree) {
    return tree->count == 0;
}

static inline bool avl_is_first(const struct avl_tree *tree, const struct avl_node *node) {
    return list_is_first(&node->list, &tree->list_head);
}

static inline bool avl_is_last(const struct avl_tree *tree, const struct avl_node *node) {
    return list_is_last(&node->list, &tree->list_head);
}

/* Address of the record around a node, null for null. */
static inline void *avl_container(struct avl_node *node, size_t offset) {
    return node ? (char *)node - offset : NULL;
}

/* `element` only lends its type. */
#define avl_find_element(tree, key, element, node_element)        \
    ((__typeof__(*(element)) *)avl_container(avl_find(tree, key), \
                                             offsetof(__typeof__(*(element)), node_element)))
#define avl_first_element(tree, element, node_member) \
    list_first_entry(&(tree)->list_head, __typeof__(*(element)), node_member.list)
#define avl_last_element(tree, element, node_member) \
    list_last_entry(&(tree)->list_head, __typeof__(*(element)), node_member.list)
#define avl_next_element(element, node_member) \
    list_entry((element)->node_member.list.next, __typeof__(*(element)), node_member.list)
#define avl_prev_element(element, node_member) \
    list_entry((element)->node_member.list.prev, __typeof__(*(element)), node_member.list)

#define avl_for_each_element(tree, element, node_member) \
    list_for_each_entry(element, &(tree)->list_head, node_member.list)
#define avl_for_each_element_reverse(tree, element, node_member) \
    list_for_each_entry_reverse(element, &(tree)->list_head, node_member.list)
/* The body may delete (and free) the element that it is given. */
#define avl_for_each_element_safe(tree, element, node_member, next) \
    list_for_each_entry_safe(element, next, &(tree)->list_head, node_member.list)

#endif
