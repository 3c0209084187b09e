// The context: directories and error texts.
#include "uci_internal.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace ucilib {

namespace {

constexpr std::array<const char *, UCI_ERR_LAST> error_texts = {
    "Success",   "Out of memory", "Invalid argument", "Entry not found",
    "I/O error", "Parse error",   "Duplicate entry",  "Unknown error",
};

bool is_dir(const char *dir) {
    return dir && dir[0];
}

uci_element *find_dir(uci_context *ctx, const char *dir) {
    return uci_lookup_list(&ctx->delta_path, dir);
}

// The directory of this context's own changes stands last in the list.
void set_savedir(uci_context *ctx, const char *dir) {
    text_replace(ctx->savedir, dir);
    uci_element *known = find_dir(ctx, dir);
    if (!known) {
        item_new(&ctx->delta_path, UCI_TYPE_PATH, dir);
        return;
    }
    list_remove(&known->list);
    list_append(&ctx->delta_path, &known->list);
}

int add_delta_path(uci_context *ctx, const char *dir) {
    if (find_dir(ctx, dir))
        return UCI_ERR_DUPLICATE;
    uci_element *added = item_new(&ctx->delta_path, UCI_TYPE_PATH, dir);
    uci_list *own = &find_dir(ctx, ctx->savedir)->list;
    list_remove(&added->list);
    list_append(own, &added->list); // in front of it
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
        text += ") at line " + std::to_string(ctx->line) + ", byte " + std::to_string(ctx->byte);
    }
    return text;
}

} // namespace

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
            text_replace(ctx->conf2dir, UCI_CONF2DIR);
            set_savedir(ctx, UCI_SAVEDIR);
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
    free(ctx->conf2dir);
    free(ctx->savedir);
    free(ctx);
}

int uci_set_confdir(uci_context *ctx, const char *dir) {
    return ucilib::guarded(ctx, [&] {
        if (!ucilib::is_dir(dir))
            return UCI_ERR_INVAL;
        ucilib::text_replace(ctx->confdir, dir);
        return UCI_OK;
    });
}

int uci_set_conf2dir(uci_context *ctx, const char *dir) {
    return ucilib::guarded(ctx, [&] {
        ucilib::text_replace(ctx->conf2dir, ucilib::is_dir(dir) ? dir : std::string_view());
        return UCI_OK;
    });
}

int uci_set_savedir(uci_context *ctx, const char *dir) {
    return ucilib::guarded(ctx, [&] {
        if (!ucilib::is_dir(dir))
            return UCI_ERR_INVAL;
        ucilib::set_savedir(ctx, dir);
        return UCI_OK;
    });
}

int uci_add_delta_path(uci_context *ctx, const char *dir) {
    return ucilib::guarded(
        ctx, [&] { return ucilib::is_dir(dir) ? ucilib::add_delta_path(ctx, dir) : int{UCI_ERR_INVAL}; });
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
