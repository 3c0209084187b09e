/* Comparison functions for avl trees. */
#ifndef LIBUBOX_AVL_CMP_H
#define LIBUBOX_AVL_CMP_H

/* For keys that are zero-terminated text. */
int avl_strcmp(const void *k1, const void *k2, void *ptr);

#endif
