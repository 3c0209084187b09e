// A context that may keep what it is told but never sends: the root says that the clock is not synchronised.
#pragma once

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_post.h"

class FuzzRoot {
  public:
    FuzzRoot() {
        char name[] = "/tmp/tlf-XXXXXX";
        if (mkdtemp(name) == nullptr)
            abort();
        root_ = name;
        setenv("TELEMETRY_SYSROOT", name, 1);
        std::filesystem::create_directories(root_ + "/etc/config");
        std::filesystem::create_directories(root_ + "/tmp");
        std::ofstream(root_ + "/etc/config/telemetry")
            << "config basic 'basic'\n\toption enable 'on'\n\nconfig cloud 'cloud'\n\nconfig strategy "
               "'strategy'\n";
        telemetry_debug_enable = 0;
        uloop_init();
    }
    ~FuzzRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    FuzzRoot(const FuzzRoot &) = delete;
    FuzzRoot &operator=(const FuzzRoot &) = delete;

  private:
    std::string root_;
};

// Zero-filled but for what the calls need; its timers leave the loop with it.
struct FuzzContext {
    FuzzContext() {
        static const FuzzRoot root;
        memset(&ctx, 0, sizeof(ctx));
        ctx.collect_timer.cb = [](uloop_timeout *) {};
        ctx.post_timer.cb = telemetry_post_data;
        copy_text(ctx.access_secret, "secret");
    }
    ~FuzzContext() {
        uloop_timeout_cancel(&ctx.collect_timer);
        uloop_timeout_cancel(&ctx.post_timer);
        uloop_timeout_cancel(&ctx.post_retry_timer);
        cJSON_Delete(ctx.collect_list);
    }
    FuzzContext(const FuzzContext &) = delete;
    FuzzContext &operator=(const FuzzContext &) = delete;

    TelemetryCtx ctx;
};
