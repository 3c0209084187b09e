// Packages out of the configuration directories.
#include "uci_internal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace ucilib {

namespace {

// The file in the directory of overrides counts instead of the one in the configuration directory.
std::string package_path(const uci_context *ctx, const char *name) {
    if (ctx->conf2dir) {
        std::string path = path_in(ctx->conf2dir, name);
        struct stat info;
        if (stat(path.c_str(), &info) == 0)
            return path;
    }
    return path_in(ctx->confdir, name);
}

// A file outside the configuration directory, for which nothing is staged.
bool is_path(const char *name) {
    return name[0] == '/' || (name[0] == '.' && name[1] == '/');
}

int load(uci_context *ctx, const char *name, uci_package **package) {
    if (!name || !package)
        return UCI_ERR_INVAL;
    const bool by_path = is_path(name);
    const std::string path = by_path ? name : package_path(ctx, name);
    if (by_path)
        name = strrchr(name, '/') + 1;
    if (!valid_file_name(name))
        return UCI_ERR_NOTFOUND;
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

// Names of the regular files in dir that can be packages, in order.
std::vector<std::string> package_names(DIR *dir) {
    std::vector<std::string> names;
    while (const dirent *entry = readdir(dir)) {
        struct stat info;
        if (valid_package_name(entry->d_name) && fstatat(dirfd(dir), entry->d_name, &info, 0) == 0 &&
            S_ISREG(info.st_mode))
            names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// One block: the pointers, the closing null, the texts.
char **as_block(const std::vector<std::string> &names) {
    const size_t heads = (names.size() + 1) * sizeof(char *);
    size_t bytes = heads;
    for (const auto &name : names)
        bytes += name.size() + 1;
    auto **block = static_cast<char **>(malloc(bytes));
    if (!block)
        throw std::bad_alloc();
    char *text = reinterpret_cast<char *>(block) + heads;
    for (size_t i = 0; i < names.size(); i++) {
        block[i] = text;
        memcpy(text, names[i].c_str(), names[i].size() + 1);
        text += names[i].size() + 1;
    }
    block[names.size()] = nullptr;
    return block;
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
    text_source source(text);
    rc = parse_packages(ctx, source, {name, true, nullptr, packages});
    if (rc == UCI_OK)
        package = std::move(packages.front());
    return rc;
}

} // namespace ucilib

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

int uci_revert(uci_context *ctx, uci_ptr *ptr) {
    using namespace ucilib;
    std::string name;
    const int rc = guarded(ctx, [&] {
        if (!ptr || !ptr->p)
            return int{UCI_ERR_INVAL};
        name = ptr->p->e.name;
        const int saved = delta_save(ctx, ptr->p);
        return saved == UCI_OK ? delta_drop(ctx, ptr) : saved;
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

int uci_list_configs(uci_context *ctx, char ***list) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (!list)
            return UCI_ERR_INVAL;
        *list = nullptr;
        std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(ctx->confdir), closedir);
        if (!dir)
            return UCI_ERR_NOTFOUND;
        *list = as_block(package_names(dir.get()));
        return UCI_OK;
    });
}
