// What the files of this library share. Out of memory is std::bad_alloc inside and UCI_ERR_MEM outside.
#ifndef UCI_INTERNAL_H
#define UCI_INTERNAL_H

#include "uci_words.h"

#include <uci.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace ucilib {

constexpr size_t max_file_size = 4u << 20;  // bytes of a configuration file
constexpr size_t max_delta_size = 1u << 20; // bytes of a file of staged changes
constexpr int max_sections = 16384;         // made in one package
constexpr size_t max_options = 1024;        // in one section

// Runs the body of a public function: its code goes into the context, no exception leaves.
template <typename F> int guarded(uci_context *ctx, F &&body) noexcept {
    if (!ctx)
        return UCI_ERR_INVAL;
    ctx->reason = nullptr;
    try {
        return ctx->err = body();
    } catch (const std::bad_alloc &) {
        return ctx->err = UCI_ERR_MEM;
    } catch (...) {
        return ctx->err = UCI_ERR_UNKNOWN;
    }
}

struct package_deleter {
    void operator()(uci_package *p) const;
};
using package_handle = std::unique_ptr<uci_package, package_deleter>;

// Elements (uci_elements.cpp). Texts are malloc'ed; a view without data stands for null.
char *text_dup(std::string_view text);
void text_replace(char *&text, std::string_view value);
void list_init(uci_list *list);
void list_append(uci_list *list, uci_list *entry);
void list_remove(uci_list *entry);
package_handle package_new(uci_context *ctx, std::string_view name); // in no list yet
// An empty name makes an anonymous section. Null when the package is full.
uci_section *section_new(uci_package *p, std::string_view type, std::string_view name);
// An empty text or an empty list. Null when the section is full.
uci_option *option_new(uci_section *s, std::string_view name, uci_option_type type);
uci_element *item_new(uci_list *list, uci_type type, std::string_view text);
uci_delta *delta_new(uci_list *list, uci_command cmd, std::string_view section, std::string_view option,
                     std::string_view value);
void section_free(uci_section *s);
void option_free(uci_option *o);
void delta_list_clear(uci_list *list);
void item_list_clear(uci_list *list);
void option_set_string(uci_option *o, std::string_view value);
void option_add_item(uci_option *o, std::string_view value);

// Letters, digits and '_', not empty; package names also '-'; types any printable byte but the blank; values
// that can be staged have no control bytes but tab, CR and LF.
bool valid_name(std::string_view text);
bool valid_package_name(std::string_view text);
bool valid_file_name(std::string_view text); // stays in its directory
bool valid_type(std::string_view text);
bool valid_value(std::string_view text);

// Parsing and printing (uci_parse.cpp, uci_export.cpp).
struct import_target {
    const char *name;   // of the package of what stands before the first `package` line; null: none
    bool single;        // a `package` line changes nothing
    uci_package *merge; // takes what is read instead of a new package, or null
    std::vector<package_handle> &packages;
};
// Reads a text into packages, which the caller gets only when all of it was good.
int parse_packages(uci_context *ctx, line_source &source, const import_target &target);
void print_quoted(std::string &out, std::string_view value);
void print_package(std::string &out, uci_package *p, bool header, bool all_names);

// Places (uci_place.cpp).
// Cuts "package[.section[.option]][=value]" at its dots and its equals sign. False when a piece is no name; a
// section that is none is marked UCI_LOOKUP_EXTENDED.
bool split_place(uci_ptr *ptr, char *text);

// Changes (uci_change.cpp) are recorded only in a package with has_delta.
int change_set(uci_ptr *ptr);
// Of ptr->s; where that is null the section is made without a look whether there is one.
int change_set_type(uci_ptr *ptr);
int change_add_section(uci_ptr *ptr); // of type ptr->value, without a name of its own
int change_add_list(uci_ptr *ptr);
int change_del_list(uci_ptr *ptr);
int change_rename(uci_ptr *ptr);
int change_delete(uci_ptr *ptr);
void change_reorder(uci_section *s, int pos);

// Files (uci_file.cpp).
std::string path_in(const std::string &dir, std::string_view name);
class file_handle {
  public:
    explicit file_handle(int fd = -1) : fd_(fd) {}
    file_handle(file_handle &&other) noexcept : fd_(other.fd_) {
        other.fd_ = -1;
    }
    file_handle &operator=(file_handle &&other) noexcept;
    ~file_handle();
    int get() const {
        return fd_;
    }
    explicit operator bool() const {
        return fd_ >= 0;
    }

  private:
    int fd_;
};
// Opens a regular file. 0, UCI_ERR_NOTFOUND or UCI_ERR_IO.
int file_open(const std::string &path, int flags, file_handle &file);
// Opens and locks (LOCK_SH or LOCK_EX); what is locked is what the path names then. Waits a few seconds at
// most.
int file_open_locked(const std::string &path, int flags, int lock, file_handle &file);
// 0, UCI_ERR_IO, or UCI_ERR_PARSE when the file is larger than limit.
int file_read(int fd, size_t limit, std::string &text);
int file_write(int fd, std::string_view text);
// Puts text in the place of path in one step, with mode and owner of the file `old`.
int file_replace(const std::string &path, const std::string &package, int old, std::string_view text);

// Staged changes (uci_delta.cpp).
// Reads and applies one text of staged changes; the number of those that fitted is added to count.
void delta_apply(uci_package *p, std::string_view text, bool keep, size_t &count);
// Opens savedir's file with the lock. A load holds it while it reads the configuration, so that a commit by
// another is seen whole or not at all. UCI_ERR_NOTFOUND when nothing was ever staged.
int delta_open(uci_context *ctx, const char *package, int lock, file_handle &file);
// Applies all directories' changes; `own` is savedir's file or closed.
int delta_load(uci_context *ctx, uci_package *p, const file_handle &own, size_t &count);
int delta_save(uci_context *ctx, uci_package *p);
// Takes the changes at ptr and below out of savedir's file.
int delta_drop(uci_context *ctx, const uci_ptr *ptr);

// Reads and parses the file of a package (uci_load.cpp).
int package_read(uci_context *ctx, int fd, const char *name, package_handle &package);

} // namespace ucilib

#endif
