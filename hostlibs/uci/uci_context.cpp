// The context: directories, error texts, loading and unloading.
#include "uci_internal.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>

namespace ucilib {

namespace {

constexpr std::array<const char *, UCI_ERR_LAST> error_texts = {
    "Success",   "Out of memory", "Invalid argument", "Entry not found",
    "I/O error", "Parse error",   "Duplicate entry",  "Unknown error",
};

int set_dir(char *&field, const char *dir) {
    if (!dir || !dir[0])
        return UCI_ERR_INVAL;
    text_replace(field, dir);
    return UCI_OK;
}

// A file outside the configuration directory, for which nothing is staged.
bool is_path(const char *name) {
    return name[0] == '/' || (name[0] == '.' && name[1] == '/');
}

int load(uci_context *ctx, const char *name, uci_package **package) {
    if (!name || !package)
        return UCI_ERR_INVAL;
    const bool by_path = is_path(name);
    const std::string path = by_path ? name : delta_path(ctx->confdir, name);
    if (by_path)
        name = strrchr(name, '/') + 1;
    if (!valid_package_name(name))
        return UCI_ERR_INVAL;
    if (uci_lookup_package(ctx, name))
        return UCI_ERR_DUPLICATE;
    file_handle file, staged;
    if (!by_path)
        delta_open(ctx, name, LOCK_SH, staged); // unreadable staged changes do not hide the file
    int rc = file_open(path, O_RDONLY, file);
    if (rc != UCI_OK)
        return rc;
    package_handle p;
    rc = package_read(ctx, file.get(), name, p);
    if (rc != UCI_OK)
        return rc;
    p->path = text_dup(path);
    size_t count = 0;
    if (!by_path)
        delta_load(ctx, p.get(), staged, count);
    p->has_delta = !by_path;
    list_append(&ctx->root, &p->e.list);
    *package = p.release();
    return UCI_OK;
}

std::string error_text(const uci_context *ctx, const char *prefix) {
    std::string text;
    if (prefix && prefix[0]) {
        text += prefix;
        text += ": ";
    }
    const int err = ctx->err;
    text += error_texts[err >= 0 && err < UCI_ERR_LAST ? static_cast<size_t>(err) : size_t{UCI_ERR_UNKNOWN}];
    if (err == UCI_ERR_PARSE && ctx->reason) {
        text += " (";
        text += ctx->reason;
        text += ")";
        if (ctx->line > 0)
            text += " at line " + std::to_string(ctx->line);
    }
    return text;
}

} // namespace

int package_read(uci_context *ctx, int fd, const char *name, package_handle &package) {
    std::string text;
    int rc = file_read(fd, max_file_size, text);
    if (rc == UCI_ERR_PARSE)
        ctx->reason = "too large";
    if (rc != UCI_OK)
        return rc;
    std::vector<package_handle> packages;
    rc = parse_packages(ctx, text, name, true, packages);
    if (rc == UCI_OK)
        package = std::move(packages.front());
    return rc;
}

} // namespace ucilib

uci_context *uci_alloc_context(void) {
    using namespace ucilib;
    auto *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
    if (!ctx)
        return nullptr;
    list_init(&ctx->root);
    list_init(&ctx->delta_path);
    ctx->flags = UCI_FLAG_STRICT;
    if (guarded(ctx, [&] {
            text_replace(ctx->confdir, UCI_CONFDIR);
            text_replace(ctx->savedir, UCI_SAVEDIR);
            return UCI_OK;
        }) != UCI_OK) {
        uci_free_context(ctx);
        return nullptr;
    }
    return ctx;
}

void uci_free_context(uci_context *ctx) {
    using namespace ucilib;
    if (!ctx)
        return;
    uci_element *e, *next;
    uci_foreach_element_safe(&ctx->root, next, e) package_deleter()(uci_to_package(e));
    item_list_clear(&ctx->delta_path);
    free(ctx->confdir);
    free(ctx->savedir);
    free(ctx);
}

int uci_set_confdir(uci_context *ctx, const char *dir) {
    return ucilib::guarded(ctx, [&] { return ucilib::set_dir(ctx->confdir, dir); });
}

int uci_set_savedir(uci_context *ctx, const char *dir) {
    return ucilib::guarded(ctx, [&] { return ucilib::set_dir(ctx->savedir, dir); });
}

int uci_add_delta_path(uci_context *ctx, const char *dir) {
    return ucilib::guarded(ctx, [&] {
        if (!dir || !dir[0])
            return UCI_ERR_INVAL;
        if (!uci_lookup_list(&ctx->delta_path, dir))
            ucilib::item_new(&ctx->delta_path, UCI_TYPE_PATH, dir);
        return UCI_OK;
    });
}

int uci_load(uci_context *ctx, const char *name, uci_package **package) {
    return ucilib::guarded(ctx, [&] { return ucilib::load(ctx, name, package); });
}

int uci_unload(uci_context *ctx, uci_package *p) {
    return ucilib::guarded(ctx, [&] {
        if (!p)
            return UCI_ERR_INVAL;
        ucilib::package_deleter()(p);
        return UCI_OK;
    });
}

int uci_list_configs(uci_context *ctx, char ***list) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (!list)
            return UCI_ERR_INVAL;
        *list = nullptr;
        std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(ctx->confdir), closedir);
        if (!dir)
            return UCI_ERR_NOTFOUND;
        std::vector<std::string> names;
        size_t bytes = 0;
        while (const dirent *entry = readdir(dir.get())) {
            if (!valid_package_name(entry->d_name))
                continue;
            names.emplace_back(entry->d_name);
            bytes += names.back().size() + 1;
        }
        std::sort(names.begin(), names.end());
        const size_t heads = (names.size() + 1) * sizeof(char *);
        auto **block = static_cast<char **>(malloc(heads + bytes));
        if (!block)
            return UCI_ERR_MEM;
        char *text = reinterpret_cast<char *>(block) + heads;
        for (size_t i = 0; i < names.size(); i++) {
            block[i] = text;
            memcpy(text, names[i].c_str(), names[i].size() + 1);
            text += names[i].size() + 1;
        }
        block[names.size()] = nullptr;
        *list = block;
        return UCI_OK;
    });
}

void uci_get_errorstr(uci_context *ctx, char **dest, const char *prefix) {
    if (dest)
        *dest = nullptr;
    if (!ctx)
        return;
    try {
        const std::string text = ucilib::error_text(ctx, prefix);
        if (dest)
            *dest = ucilib::text_dup(text);
        else
            fprintf(stderr, "%s\n", text.c_str());
    } catch (const std::bad_alloc &) {
        // No memory for the text: *dest stays null.
    }
}

void uci_perror(uci_context *ctx, const char *prefix) {
    uci_get_errorstr(ctx, nullptr, prefix);
}
