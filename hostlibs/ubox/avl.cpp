#include <cstring>
#include <utility>

extern "C" {
#include <libubox/avl.h>
#include <libubox/avl-cmp.h>
}

static int node_height(const avl_node *node) {
    return node ? node->height : 0;
}

static void update_height(avl_node *node) {
    int left = node_height(node->left);
    int right = node_height(node->right);
    node->height = static_cast<signed char>((left > right ? left : right) + 1);
}

// Puts `child` (may be null) in the place that `node` has below its parent.
static void replace_child(avl_tree *tree, avl_node *node, avl_node *child) {
    if (!node->parent)
        tree->root = child;
    else if (node->parent->left == node)
        node->parent->left = child;
    else
        node->parent->right = child;
    if (child)
        child->parent = node->parent;
}

static avl_node *rotate_left(avl_tree *tree, avl_node *node) {
    avl_node *top = node->right;
    replace_child(tree, node, top);
    node->right = top->left;
    if (node->right)
        node->right->parent = node;
    top->left = node;
    node->parent = top;
    update_height(node);
    update_height(top);
    return top;
}

static avl_node *rotate_right(avl_tree *tree, avl_node *node) {
    avl_node *top = node->left;
    replace_child(tree, node, top);
    node->left = top->right;
    if (node->left)
        node->left->parent = node;
    top->right = node;
    node->parent = top;
    update_height(node);
    update_height(top);
    return top;
}

static void rebalance_upwards(avl_tree *tree, avl_node *node) {
    for (; node; node = node->parent) {
        int tilt = node_height(node->left) - node_height(node->right);
        if (tilt > 1) {
            if (node_height(node->left->left) < node_height(node->left->right))
                rotate_left(tree, node->left);
            node = rotate_right(tree, node);
        } else if (tilt < -1) {
            if (node_height(node->right->right) < node_height(node->right->left))
                rotate_right(tree, node->right);
            node = rotate_left(tree, node);
        } else {
            update_height(node);
        }
    }
}

static avl_node *node_of_link(const avl_tree *tree, list_head *link) {
    return link == &tree->list_head ? nullptr : list_entry(link, avl_node, list);
}

// First node whose key is not below `key`, or with `beyond` the first whose key is above it; null for none.
static avl_node *lower_bound(const avl_tree *tree, const void *key, bool beyond) {
    avl_node *found = nullptr;
    for (avl_node *node = tree->root; node;) {
        int order = tree->comp(key, node->key, tree->cmp_ptr);
        if (order > 0 || (beyond && order == 0)) {
            node = node->right;
        } else {
            found = node;
            node = node->left;
        }
    }
    return found;
}

// Exchanges a node that has two children with its successor, which has no left child. Only links move, never
// records.
static void swap_with_successor(avl_tree *tree, avl_node *node, avl_node *next) {
    avl_node *next_right = next->right;
    avl_node *next_parent = next->parent;
    replace_child(tree, node, next);
    next->left = node->left;
    next->left->parent = next;
    if (next_parent == node) {
        next->right = node;
        node->parent = next;
    } else {
        next->right = node->right;
        next->right->parent = next;
        next_parent->left = node;
        node->parent = next_parent;
    }
    std::swap(next->height, node->height);
    node->left = nullptr;
    node->right = next_right;
    if (next_right)
        next_right->parent = node;
}

int avl_strcmp(const void *k1, const void *k2, void *) {
    return std::strcmp(static_cast<const char *>(k1), static_cast<const char *>(k2));
}

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr) {
    INIT_LIST_HEAD(&tree->list_head);
    tree->root = nullptr;
    tree->count = 0;
    tree->allow_dups = allow_dups;
    tree->comp = comp;
    tree->cmp_ptr = ptr;
}

struct avl_node *avl_find(const struct avl_tree *tree, const void *key) {
    avl_node *node = lower_bound(tree, key, false);
    return node && tree->comp(key, node->key, tree->cmp_ptr) == 0 ? node : nullptr;
}

struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key) {
    return lower_bound(tree, key, false);
}

struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key) {
    avl_node *above = lower_bound(tree, key, true);
    return node_of_link(tree, above ? above->list.prev : tree->list_head.prev);
}

int avl_insert(struct avl_tree *tree, struct avl_node *node) {
    avl_node *parent = nullptr;
    avl_node **place = &tree->root;
    avl_node *above = nullptr;
    while (*place) {
        parent = *place;
        int order = tree->comp(node->key, parent->key, tree->cmp_ptr);
        if (order == 0 && !tree->allow_dups)
            return -1;
        if (order < 0)
            above = parent;
        place = order < 0 ? &parent->left : &parent->right;
    }
    node->parent = parent;
    node->left = nullptr;
    node->right = nullptr;
    node->height = 1;
    *place = node;
    list_add_tail(&node->list, above ? &above->list : &tree->list_head);
    tree->count++;
    rebalance_upwards(tree, parent);
    return 0;
}

void avl_delete(struct avl_tree *tree, struct avl_node *node) {
    if (node->left && node->right)
        swap_with_successor(tree, node, list_entry(node->list.next, avl_node, list));
    avl_node *parent = node->parent;
    replace_child(tree, node, node->left ? node->left : node->right);
    list_del(&node->list);
    tree->count--;
    rebalance_upwards(tree, parent);
    node->parent = nullptr;
    node->left = nullptr;
    node->right = nullptr;
}
