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

// One staged change; the place's texts lie in `word`.
struct staged_change {
    std::string word;
    uci_command cmd;
    uci_ptr place;
};

// Takes a line's word apart. False when it is no change.
bool parse_change(staged_change &change) {
    char *text = change.word.data();
    change.cmd = UCI_CMD_CHANGE;
    for (const auto &[prefix, cmd] : prefixes) {
        if (prefix && *text == prefix) {
            change.cmd = cmd;
            text++;
            break;
        }
    }
    uci_ptr &place = change.place;
    if (!split_place(&place, text) || !place.section || (place.flags & uci_ptr::UCI_LOOKUP_EXTENDED))
        return false;
    switch (change.cmd) {
    case UCI_CMD_RENAME:
        return place.value && valid_name(place.value);
    case UCI_CMD_LIST_ADD:
    case UCI_CMD_LIST_DEL:
        return place.option && place.value;
    case UCI_CMD_REORDER:
        return place.value && !place.option;
    case UCI_CMD_REMOVE:
        return true;
    default:
        return place.value;
    }
}

// Reads the next change. False at the end; a line that is no change leaves good false.
bool next_change(word_reader &reader, staged_change &change, bool &good) {
    if (!reader.next_line())
        return false;
    good = false;
    try {
        change.word = reader.word();
        good = reader.used_up() && !change.word.empty() && parse_change(change);
    } catch (const parse_fault &) {
    }
    return true;
}

int apply_reorder(uci_ptr *ptr) {
    auto *s = uci_lookup_section(nullptr, ptr->p, ptr->section);
    if (!s)
        return UCI_ERR_NOTFOUND;
    change_reorder(s, static_cast<int>(strtoul(ptr->value, nullptr, 10)));
    return UCI_OK;
}

int apply(uci_package *p, const staged_change &change) {
    uci_ptr ptr = change.place;
    ptr.p = p;
    int rc;
    switch (change.cmd) {
    case UCI_CMD_ADD:
        rc = change_set(&ptr);
        if (ptr.s && !ptr.option) // it keeps the name that later lines know it by
            ptr.s->anonymous = true;
        return rc;
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

void print_change(std::string &out, uci_command cmd, const uci_ptr &place) {
    for (const auto &known : prefixes) {
        if (known.prefix && known.cmd == cmd)
            out += known.prefix;
    }
    out += place.package;
    out += '.';
    out += place.section;
    if (place.option) {
        out += '.';
        out += place.option;
    }
    if (place.value) {
        out += '=';
        print_quoted(out, place.value);
    }
    out += '\n';
}

std::string print_changes(uci_package *p) {
    std::string text;
    uci_element *e;
    uci_foreach_element(&p->delta, e) {
        const uci_delta *delta = uci_to_delta(e);
        uci_ptr place{};
        place.package = p->e.name;
        place.section = delta->section;
        place.option = e->name;
        place.value = delta->value;
        print_change(text, delta->cmd, place);
    }
    return text;
}

// True when the change lies at ptr or below.
bool lies_at(const uci_ptr &change, const uci_ptr *ptr) {
    if (ptr->section && strcmp(ptr->section, change.section) != 0)
        return false;
    return !ptr->option || (change.option && strcmp(ptr->option, change.option) == 0);
}

// A crash may have left half a change at the end: what is appended to an open quote would become part of it.
int repair_end(int fd, const char *&separator) {
    std::string text;
    const int rc = file_read(fd, max_delta_size, text);
    if (rc != UCI_OK)
        return rc;
    text_source source(text);
    word_reader reader(source);
    size_t last = 0; // where the last change starts
    bool cut = !text.empty() && text.back() == '\\';
    try {
        for (size_t next = 0; reader.next_line(); next = source.position()) {
            last = next;
            reader.word();
        }
    } catch (const parse_fault &) {
        cut = true;
    }
    if (cut) {
        text.resize(last);
        if (ftruncate(fd, static_cast<off_t>(last)) != 0)
            return UCI_ERR_IO;
    }
    separator = text.empty() || text.back() == '\n' ? "" : "\n";
    return UCI_OK;
}

} // namespace

void delta_apply(uci_package *p, std::string_view text, bool keep, size_t &count) {
    const bool recording = p->has_delta;
    p->has_delta = false;
    text_source source(text);
    word_reader reader(source);
    staged_change change;
    bool good;
    while (next_change(reader, change, good)) {
        const uci_ptr &place = change.place;
        if (!good || strcmp(place.package, p->e.name) != 0)
            continue;
        if (keep)
            delta_new(&p->saved_delta, change.cmd, place.section, view(place.option), view(place.value));
        count += apply(p, change) == UCI_OK; // what no longer fits the file is passed over
    }
    p->has_delta = recording;
}

int delta_open(uci_context *ctx, const char *package, int lock, file_handle &file) {
    return file_open_locked(path_in(ctx->savedir, package),
                            (lock == LOCK_EX ? O_RDWR : O_RDONLY) | O_NOFOLLOW, lock, file);
}

int delta_load(uci_context *ctx, uci_package *p, const file_handle &own, size_t &count) {
    const bool keep = ctx->flags & UCI_FLAG_SAVED_DELTA;
    std::string text;
    uci_element *dir;
    uci_foreach_element(&ctx->delta_path, dir) {
        file_handle file;
        if (strcmp(dir->name, ctx->savedir) != 0 &&
            file_open(path_in(dir->name, p->e.name), O_RDONLY | O_NOFOLLOW, file) == UCI_OK &&
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
    int rc = file_open_locked(path_in(ctx->savedir, p->e.name), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW,
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

int delta_drop(uci_context *ctx, const uci_ptr *ptr) {
    file_handle file;
    int rc = delta_open(ctx, ptr->p->e.name, LOCK_EX, file);
    if (rc != UCI_OK)
        return rc == UCI_ERR_NOTFOUND ? UCI_OK : rc;
    std::string text, kept;
    rc = file_read(file.get(), max_delta_size, text);
    if (rc != UCI_OK)
        return rc;
    text_source source(text);
    word_reader reader(source);
    staged_change change;
    bool good;
    while (next_change(reader, change, good)) {
        if (!good) // whose change that was cannot be told: nothing is dropped
            return UCI_OK;
        if (!lies_at(change.place, ptr))
            print_change(kept, change.cmd, change.place);
    }
    if (ftruncate(file.get(), 0) != 0)
        return UCI_ERR_IO;
    return file_write(file.get(), kept);
}

} // namespace ucilib

int uci_save(uci_context *ctx, uci_package *p) {
    using namespace ucilib;
    return guarded(ctx, [&] { return p ? delta_save(ctx, p) : int{UCI_ERR_INVAL}; });
}
