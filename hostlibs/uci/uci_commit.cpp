// Writing a package: the old file or the new one, never half of one.
#include "uci_internal.h"

#include <climits>
#include <cstdlib>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace ucilib {

namespace {

// Where a symbolic link leads; the path itself when there is no file yet.
std::string resolved(const std::string &path) {
    std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
    return real ? std::string(real.get()) : path;
}

int write_package(uci_package *p, const std::string &target, int old) {
    std::string text;
    print_package(text, p, false, p->ctx->flags & UCI_FLAG_EXPORT_NAME);
    if (text.size() > max_file_size) // no load would take it
        return UCI_ERR_INVAL;
    return file_replace(target, p->e.name, old, text);
}

int commit_overwrite(uci_context *ctx, uci_package *p) {
    const std::string path = p->path ? std::string(p->path) : path_in(ctx->confdir, p->e.name);
    const std::string target = resolved(path);
    file_handle old;
    int rc = file_open_locked(target, O_RDWR | O_CREAT, LOCK_EX, old);
    if (rc == UCI_OK)
        rc = write_package(p, target, old.get());
    if (rc != UCI_OK)
        return UCI_ERR_IO;
    if (!p->path)
        p->path = text_dup(path);
    delta_list_clear(&p->delta);
    return UCI_OK;
}

int commit_staged(uci_context *ctx, uci_package **package) {
    uci_package *p = *package;
    if (!p->path)
        return UCI_ERR_INVAL;
    int rc = delta_save(ctx, p);
    if (rc != UCI_OK)
        return rc;
    const std::string target = resolved(p->path);
    file_handle old, staged;
    rc = file_open_locked(target, O_RDWR | O_CREAT, LOCK_EX, old);
    if (rc != UCI_OK)
        return UCI_ERR_IO;
    package_handle fresh;
    rc = package_read(ctx, old.get(), p->e.name, fresh);
    if (rc != UCI_OK)
        return rc;
    fresh->path = text_dup(p->path);
    size_t count = 0;
    rc = delta_open(ctx, p->e.name, LOCK_EX, staged);
    if (rc != UCI_OK && rc != UCI_ERR_NOTFOUND)
        return rc;
    rc = delta_load(ctx, fresh.get(), staged, count);
    if (rc != UCI_OK)
        return rc;
    if (count > 0 && (rc = write_package(fresh.get(), target, old.get())) != UCI_OK)
        return rc;
    // Only now: a crash before this applies the same changes again, one after it finds them done.
    if (count > 0 && staged && ftruncate(staged.get(), 0) != 0)
        rc = UCI_ERR_IO;
    delta_list_clear(&fresh->saved_delta);
    fresh->has_delta = true;
    list_append(&p->e.list, &fresh->e.list); // the same place in the context
    package_deleter()(p);
    *package = fresh.release();
    return rc;
}

} // namespace

} // namespace ucilib

int uci_commit(uci_context *ctx, uci_package **p, bool overwrite) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (!p || !*p)
            return int{UCI_ERR_INVAL};
        return overwrite || !(*p)->has_delta ? commit_overwrite(ctx, *p) : commit_staged(ctx, p);
    });
}
