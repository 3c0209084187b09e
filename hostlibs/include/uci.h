// Configuration packages (UCI): files of sections and options, with changes staged beside them until a
// commit.
//
// A context owns every package that it has loaded, and with the package all its sections, options and texts:
// such a pointer is good until the package is unloaded, committed or reverted, or the element is changed.
// Every function returns 0 or a UCI_ERR_ code, which also stays in the context for uci_perror().
#ifndef UCI_H
#define UCI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UCI_CONFDIR "/etc/config"
#define UCI_SAVEDIR "/tmp/.uci"
#define UCI_CONF2DIR "/var/run/uci"

enum {
    UCI_OK = 0,
    UCI_ERR_MEM,
    UCI_ERR_INVAL,
    UCI_ERR_NOTFOUND,
    UCI_ERR_IO,
    UCI_ERR_PARSE,
    UCI_ERR_DUPLICATE,
    UCI_ERR_UNKNOWN,
    UCI_ERR_LAST
};

enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_DELTA = 1,
    UCI_TYPE_PACKAGE = 2,
    UCI_TYPE_SECTION = 3,
    UCI_TYPE_OPTION = 4,
    UCI_TYPE_PATH = 5,
    UCI_TYPE_BACKEND = 6,
    UCI_TYPE_ITEM = 7,
    UCI_TYPE_HOOK = 8
};

enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

enum uci_flags {
    UCI_FLAG_STRICT = 1 << 0,
    UCI_FLAG_PERROR = 1 << 1,
    UCI_FLAG_EXPORT_NAME = 1 << 2, // export names of anonymous sections too
    UCI_FLAG_SAVED_DELTA = 1 << 3  // keep the staged changes that a load applied in saved_delta
};

enum uci_command {
    UCI_CMD_ADD,
    UCI_CMD_REMOVE,
    UCI_CMD_CHANGE,
    UCI_CMD_RENAME,
    UCI_CMD_REORDER,
    UCI_CMD_LIST_ADD,
    UCI_CMD_LIST_DEL
};

struct uci_list {
    struct uci_list *next;
    struct uci_list *prev;
};

struct uci_element {
    struct uci_list list;
    enum uci_type type;
    char *name;
};

struct uci_context {
    struct uci_list root; // loaded packages
    enum uci_flags flags;
    char *confdir;
    char *savedir;
    char *conf2dir; // of overrides, or null
    struct uci_list
        delta_path;     // directories of staged changes in the order of applying them; savedir stands last
    int err;            // of the last call
    const char *reason; // of a parse error, a constant text or null
    int line;           // of a parse error, from 1
    int byte;           // and in the line
};

struct uci_package {
    struct uci_element e;
    struct uci_list sections;
    struct uci_context *ctx;
    bool has_delta;              // changes are recorded in delta
    char *path;                  // of the file; null when imported
    int n_section;               // sections made so far, numbers anonymous ones
    struct uci_list delta;       // changes of this context, not yet saved
    struct uci_list saved_delta; // staged changes found by the load, with UCI_FLAG_SAVED_DELTA
};

struct uci_section {
    struct uci_element e;
    struct uci_list options;
    struct uci_package *package;
    bool anonymous;
    char *type;
};

struct uci_option {
    struct uci_element e;
    struct uci_section *section;
    enum uci_option_type type;
    union {
        struct uci_list list; // elements of type UCI_TYPE_ITEM, the value is the name
        char *string;
    } v;
};

// One change: e.name is the option or null, value the new value, name, type or place.
struct uci_delta {
    struct uci_element e;
    enum uci_command cmd;
    char *section;
    char *value;
};

// A place in the configuration. From C++ the flags are uci_ptr::UCI_LOOKUP_COMPLETE and so on.
struct uci_ptr {
    enum uci_type target;
    enum { UCI_LOOKUP_DONE = 1 << 0, UCI_LOOKUP_COMPLETE = 1 << 1, UCI_LOOKUP_EXTENDED = 1 << 2 } flags;
    struct uci_package *p;
    struct uci_section *s;
    struct uci_option *o;
    struct uci_element *last; // the innermost element that was found
    const char *package;
    const char *section;
    const char *option;
    const char *value;
};

// A context with the default directories, or null. Free it with uci_free_context, which unloads its packages.
struct uci_context *uci_alloc_context(void);
void uci_free_context(struct uci_context *ctx);

// Directory of the configuration files.
int uci_set_confdir(struct uci_context *ctx, const char *dir);
// Directory of overrides: dir/name, where it exists, is read and written instead of confdir/name. Null
// switches it off.
int uci_set_conf2dir(struct uci_context *ctx, const char *dir);
// Directory that changes are staged in. It is added to the list of those that every load and commit applies,
// which has UCI_SAVEDIR from the start; a commit empties only this one.
int uci_set_savedir(struct uci_context *ctx, const char *dir);
// One more directory of staged changes to apply, in front of savedir's. UCI_ERR_DUPLICATE when it is there
// already.
int uci_add_delta_path(struct uci_context *ctx, const char *dir);

// Reads confdir/name and applies the changes staged in savedir/name. The package and all that hangs on it
// belong to the context. UCI_ERR_NOTFOUND without a file, UCI_ERR_PARSE for a bad or too large one (4 MiB,
// 16384 sections, 1024 options a section), UCI_ERR_DUPLICATE when the context has it already.
// A name that starts with '/' or './' is the path of a file: it has no staged changes, and a commit writes it
// as it is.
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);
int uci_unload(struct uci_context *ctx, struct uci_package *p);

// Parses "package[.section[.option]][=value]", loads the package when needed and looks the place up. str is
// cut into pieces and must outlive ptr. With extended, section may be "@type[n]", n < 0 counts from the end.
// Returns 0 also when section or option is missing: see UCI_LOOKUP_COMPLETE in ptr->flags. With a null str
// ptr's own texts are used.
int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);

// Changes in memory, recorded for uci_save. They need the elements that ptr names: UCI_ERR_NOTFOUND without.
// uci_set makes or changes an option (in a section that exists) or, without ptr->option, a section of type
// ptr->value; an empty value deletes the option and succeeds when there was none.
int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr);
// Renames to ptr->value. Whether the name is taken is not looked at: of two elements with one name the next
// reading makes one, and two sections of different types it refuses.
int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr);
// Deletes the section or option; with ptr->value the list item of that number.
int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type,
                    struct uci_section **res);
int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos);

// Appends the recorded changes to savedir/name.
int uci_save(struct uci_context *ctx, struct uci_package *p);
// Writes the file: own changes are staged first, then the file is read anew, all staged changes are applied,
// the result replaces the file in one step and the staged changes are gone. With overwrite the package is
// written as it is. *p may change, and is null after a failure that lost it.
int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);
// Drops the recorded and staged changes at ptr and below. ptr->p changes.
int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr);

// Reads packages from a stream; name is that of what stands before the first `package` line, or null. With
// single everything goes to it. *package, when not null, becomes the last one read.
int uci_import(struct uci_context *ctx, FILE *stream, const char *name, struct uci_package **package,
               bool single);
// Writes one package, or with a null package all; header adds the `package` line.
int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *package, bool header);
// Names of the packages in confdir, in order, closed by a null; one block for the caller to free().
int uci_list_configs(struct uci_context *ctx, char ***list);

// Prints "prefix: error text" on standard error.
void uci_perror(struct uci_context *ctx, const char *prefix);
// Puts the same text into *dest, for the caller to free(), or on standard error when dest is null.
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix);

// By name, or null.
struct uci_element *uci_lookup_list(struct uci_list *list, const char *name);
struct uci_package *uci_lookup_package(struct uci_context *ctx, const char *name);
struct uci_section *uci_lookup_section(struct uci_context *ctx, struct uci_package *p, const char *name);
struct uci_option *uci_lookup_option(struct uci_context *ctx, struct uci_section *s, const char *name);
// The option's text; null also for a list.
const char *uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s, const char *name);

// The element is the first member of each record, and the list the first of the element.
#define list_to_element(ptr) ((struct uci_element *)(void *)(ptr))

static inline bool uci_list_empty(struct uci_list *list) {
    return list->next == list;
}

static inline struct uci_package *uci_to_package(struct uci_element *e) {
    return e && e->type == UCI_TYPE_PACKAGE ? (struct uci_package *)(void *)e : NULL;
}

static inline struct uci_section *uci_to_section(struct uci_element *e) {
    return e && e->type == UCI_TYPE_SECTION ? (struct uci_section *)(void *)e : NULL;
}

static inline struct uci_option *uci_to_option(struct uci_element *e) {
    return e && e->type == UCI_TYPE_OPTION ? (struct uci_option *)(void *)e : NULL;
}

static inline struct uci_delta *uci_to_delta(struct uci_element *e) {
    return e && e->type == UCI_TYPE_DELTA ? (struct uci_delta *)(void *)e : NULL;
}

// Walks a list of elements; the _safe one allows the current element to be deleted.
#define uci_foreach_element(_list, _ptr)                                \
    for (_ptr = list_to_element((_list)->next); &_ptr->list != (_list); \
         _ptr = list_to_element(_ptr->list.next))

#define uci_foreach_element_safe(_list, _tmp, _ptr)                                      \
    for (_ptr = list_to_element((_list)->next), _tmp = list_to_element(_ptr->list.next); \
         &_ptr->list != (_list); _ptr = _tmp, _tmp = list_to_element(_ptr->list.next))

#ifdef __cplusplus
}
#endif

#endif
