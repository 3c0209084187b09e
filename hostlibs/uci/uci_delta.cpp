// Changes that are staged in the save directory: a line a change,
// `[prefix]package.section[.option][='value']`.
#include "uci_internal.h"

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ucilib {

namespace {

struct command_prefix {
    char prefix; // 0: none
    uci_command cmd;
};

constexpr command_prefix prefixes[] = {
    {'+', UCI_CMD_ADD},      {'-', UCI_CMD_REMOVE},   {'@', UCI_CMD_RENAME},  {'^', UCI_CMD_REORDER},
    {'|', UCI_CMD_LIST_ADD}, {'~', UCI_CMD_LIST_DEL}, {'\0', UCI_CMD_CHANGE},
};

// One staged change; the texts lie in `word`.
struct staged_change {
    std::string word;
    uci_command cmd;
    char *package;
    char *section;
    char *option;
    char *value;
};

char *cut(char *text, char at) {
    char *found = text ? strchr(text, at) : nullptr;
    if (found)
        *found++ = '\0';
    return found;
}

// Takes a line's word apart. False when it is no change.
bool parse_change(staged_change &change) {
    if (change.word.find('\0') != std::string::npos)
        return false;
    char *text = change.word.data();
    change.cmd = UCI_CMD_CHANGE;
    for (const auto &[prefix, cmd] : prefixes) {
        if (prefix && *text == prefix) {
            change.cmd = cmd;
            text++;
            break;
        }
    }
    change.value = cut(text, '=');
    change.package = text;
    change.section = cut(text, '.');
    change.option = cut(change.section, '.');
    if (!valid_package_name(change.package) || !change.section || !valid_name(change.section))
        return false;
    if (change.option && !valid_name(change.option))
        return false;
    return change.value || change.cmd == UCI_CMD_REMOVE;
}

// Reads the next change. False at the end; a line that is no change leaves good false.
bool next_change(word_reader &reader, staged_change &change, bool &good) {
    if (reader.pos >= reader.text.size())
        return false;
    std::string more;
    good = next_word(reader, change.word) == word_result::word &&
           next_word(reader, more) == word_result::end_of_line && parse_change(change);
    skip_line(reader);
    reader.pos++;
    return true;
}

// An added section keeps the name that later lines know it by.
int apply_add(uci_ptr *ptr) {
    if (ptr->option)
        return UCI_ERR_INVAL;
    const bool exists = uci_lookup_section(nullptr, ptr->p, ptr->section);
    int rc = change_set(ptr);
    if (rc == UCI_OK && !exists)
        ptr->s->anonymous = true;
    return rc;
}

int apply_reorder(uci_ptr *ptr) {
    auto *s = uci_lookup_section(nullptr, ptr->p, ptr->section);
    const int pos = atoi(ptr->value);
    return s && pos >= 0 ? change_reorder(s, pos) : int{UCI_ERR_NOTFOUND};
}

int apply(uci_package *p, const staged_change &change) {
    uci_ptr ptr{};
    ptr.p = p;
    ptr.section = change.section;
    ptr.option = change.option;
    ptr.value = change.value;
    switch (change.cmd) {
    case UCI_CMD_ADD:
        return apply_add(&ptr);
    case UCI_CMD_REMOVE:
        return change_delete(&ptr);
    case UCI_CMD_RENAME:
        return change_rename(&ptr);
    case UCI_CMD_REORDER:
        return apply_reorder(&ptr);
    case UCI_CMD_LIST_ADD:
        return change_add_list(&ptr);
    case UCI_CMD_LIST_DEL:
        return change_del_list(&ptr);
    case UCI_CMD_CHANGE:
        break;
    }
    return change_set(&ptr);
}

std::string_view view(const char *text) {
    return text ? text : std::string_view();
}

void print_change(std::string &out, const char *package, const uci_delta *delta) {
    for (const auto &[prefix, cmd] : prefixes) {
        if (prefix && cmd == delta->cmd)
            out += prefix;
    }
    out += package;
    out += '.';
    out += delta->section;
    if (delta->e.name) {
        out += '.';
        out += delta->e.name;
    }
    if (delta->value) {
        out += '=';
        print_quoted(out, delta->value);
    }
    out += '\n';
}

// True when `rename` gives the section that `add` made its name.
bool names_added(const uci_delta *add, const uci_delta *rename) {
    return add->cmd == UCI_CMD_ADD && rename->cmd == UCI_CMD_RENAME && !rename->e.name &&
           strcmp(add->section, rename->section) == 0;
}

// A section that was added and named at once becomes one change: after a crash between the new file and the
// emptying of the staged one, it is applied again, and then finds its section instead of adding another.
std::string print_changes(uci_package *p) {
    std::string text;
    uci_element *e;
    uci_foreach_element(&p->delta, e) {
        const uci_delta *delta = uci_to_delta(e);
        const bool last = e->list.next == &p->delta;
        const uci_delta *next = last ? nullptr : uci_to_delta(list_to_element(e->list.next));
        if (!next || !names_added(delta, next)) {
            print_change(text, p->e.name, delta);
            continue;
        }
        uci_delta named{};
        named.cmd = UCI_CMD_CHANGE;
        named.section = next->value;
        named.value = delta->value;
        print_change(text, p->e.name, &named);
        e = list_to_element(e->list.next);
    }
    return text;
}

// True when the change lies at ptr or below.
bool lies_at(const staged_change &change, const uci_ptr *ptr) {
    if (ptr->section && strcmp(ptr->section, change.section) != 0)
        return false;
    return !ptr->option || (change.option && strcmp(ptr->option, change.option) == 0);
}

// Rewrites the staged file without the changes at ptr.
int drop_staged(const std::string &path, const uci_ptr *ptr) {
    file_handle file;
    int rc = file_open_locked(path, O_RDWR | O_NOFOLLOW, LOCK_EX, file);
    if (rc != UCI_OK)
        return rc == UCI_ERR_NOTFOUND ? UCI_OK : rc;
    std::string text, kept;
    rc = file_read(file.get(), max_delta_size, text);
    if (rc != UCI_OK)
        return rc;
    word_reader reader{text};
    staged_change change;
    bool good;
    for (size_t start = 0; next_change(reader, change, good); start = reader.pos) {
        if (good && !lies_at(change, ptr))
            kept.append(text, start, reader.pos - start);
    }
    if (ftruncate(file.get(), 0) != 0)
        return UCI_ERR_IO;
    return file_write(file.get(), kept);
}

// A crash may have left half a change at the end: what is appended to an open quote would become part of it.
int repair_end(int fd, const char *&separator) {
    std::string text;
    int rc = file_read(fd, max_delta_size, text);
    if (rc != UCI_OK)
        return rc;
    word_reader reader{text};
    staged_change change;
    bool good;
    size_t start = 0;
    while (next_change(reader, change, good) && !reader.reason)
        start = reader.pos;
    separator = "";
    if (reader.reason)
        return ftruncate(fd, static_cast<off_t>(start)) == 0 ? UCI_OK : UCI_ERR_IO;
    if (!text.empty() && text.back() != '\n')
        separator = "\n";
    return UCI_OK;
}

} // namespace

std::string delta_path(const std::string &dir, std::string_view package) {
    return dir + "/" + std::string(package);
}

void delta_apply(uci_package *p, std::string_view text, bool keep, size_t &count) {
    const bool recording = p->has_delta;
    p->has_delta = false;
    word_reader reader{text};
    staged_change change;
    bool good;
    while (next_change(reader, change, good)) {
        if (!good || strcmp(change.package, p->e.name) != 0)
            continue;
        count++;
        if (keep)
            delta_new(&p->saved_delta, change.cmd, change.section, view(change.option), view(change.value));
        apply(p, change); // what no longer fits the file is passed over
    }
    p->has_delta = recording;
}

int delta_open(uci_context *ctx, const char *package, int lock, file_handle &file) {
    return file_open_locked(delta_path(ctx->savedir, package),
                            (lock == LOCK_EX ? O_RDWR : O_RDONLY) | O_NOFOLLOW, lock, file);
}

int delta_load(uci_context *ctx, uci_package *p, const file_handle &own, size_t &count) {
    const bool keep = ctx->flags & UCI_FLAG_SAVED_DELTA;
    std::string text;
    uci_element *dir;
    uci_foreach_element(&ctx->delta_path, dir) {
        file_handle file;
        if (strcmp(dir->name, ctx->savedir) != 0 &&
            file_open(delta_path(dir->name, p->e.name), O_RDONLY | O_NOFOLLOW, file) == UCI_OK &&
            file_read(file.get(), max_delta_size, text) == UCI_OK)
            delta_apply(p, text, keep, count);
    }
    if (!own)
        return UCI_OK;
    int rc = file_read(own.get(), max_delta_size, text);
    if (rc == UCI_OK)
        delta_apply(p, text, keep, count);
    return rc;
}

int delta_save(uci_context *ctx, uci_package *p) {
    if (uci_list_empty(&p->delta))
        return UCI_OK;
    std::string text = print_changes(p);
    mkdir(ctx->savedir, S_IRWXU); // there already, or the open below fails
    file_handle file;
    int rc = file_open_locked(delta_path(ctx->savedir, p->e.name), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW,
                              LOCK_EX, file);
    if (rc != UCI_OK)
        return UCI_ERR_IO;
    const char *separator = nullptr;
    rc = repair_end(file.get(), separator);
    if (rc != UCI_OK)
        return UCI_ERR_IO;
    text.insert(0, separator);
    const off_t before = lseek(file.get(), 0, SEEK_END);
    if (before < 0 || static_cast<size_t>(before) + text.size() > max_delta_size)
        return UCI_ERR_IO;
    rc = file_write(file.get(), text);
    if (rc != UCI_OK) {
        // Half a line would spoil the next change that is appended.
        return ftruncate(file.get(), before) == 0 ? rc : int{UCI_ERR_IO};
    }
    delta_list_clear(&p->delta);
    return UCI_OK;
}

} // namespace ucilib

int uci_save(uci_context *ctx, uci_package *p) {
    using namespace ucilib;
    return guarded(ctx, [&] { return p ? delta_save(ctx, p) : int{UCI_ERR_INVAL}; });
}

int uci_revert(uci_context *ctx, uci_ptr *ptr) {
    using namespace ucilib;
    std::string name;
    int rc = guarded(ctx, [&] {
        if (!ptr || !ptr->p)
            return int{UCI_ERR_INVAL};
        int saved = delta_save(ctx, ptr->p);
        if (saved != UCI_OK)
            return saved;
        name = ptr->p->e.name;
        return drop_staged(delta_path(ctx->savedir, name), ptr);
    });
    if (rc != UCI_OK)
        return rc;
    uci_unload(ctx, ptr->p);
    ptr->p = nullptr;
    ptr->s = nullptr;
    ptr->o = nullptr;
    ptr->last = nullptr;
    return uci_load(ctx, name.c_str(), &ptr->p);
}
