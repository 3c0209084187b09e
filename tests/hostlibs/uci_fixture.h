// A context on the test root's configuration and save directories, and packages as text.
#pragma once

#include <memory>
#include <string>

#include <uci.h>

#include "sysroot.h"

using ContextPtr = std::unique_ptr<uci_context, decltype(&uci_free_context)>;

class UciTest : public SysrootTest {
  protected:
    ContextPtr context() const {
        ContextPtr ctx(uci_alloc_context(), uci_free_context);
        uci_set_confdir(ctx.get(), root.path("/etc/config").c_str());
        uci_set_savedir(ctx.get(), root.path("/tmp/.uci").c_str());
        return ctx;
    }

    static std::string exported(uci_context *ctx, uci_package *p) {
        char *text = nullptr;
        size_t size = 0;
        FILE *stream = open_memstream(&text, &size);
        EXPECT_EQ(uci_export(ctx, stream, p, false), UCI_OK);
        fclose(stream);
        std::string result(text, size);
        free(text);
        return result;
    }

    // Looks a place up and applies one of the library's changes to it.
    static int change(uci_context *ctx, int (*apply)(uci_context *, uci_ptr *), std::string place) {
        uci_ptr ptr;
        int rc = uci_lookup_ptr(ctx, &ptr, place.data(), true);
        return rc == UCI_OK ? apply(ctx, &ptr) : rc;
    }

    // The package as a new context sees it: "error" when it does not load.
    std::string seen() const {
        auto ctx = context();
        uci_package *p = nullptr;
        return uci_load(ctx.get(), "p", &p) == UCI_OK ? exported(ctx.get(), p) : "error";
    }
};
