// A context that may keep what it is told but never sends: the root says that the clock is not synchronised.
#pragma once

#include <cstring>

#include "fuzz_root.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_post.h"

// Zero-filled but for what the calls need; its timers leave the loop with it.
struct FuzzContext {
    FuzzContext() {
        static const bool started = [] {
            fuzz_root().write("/etc/config/telemetry",
                              "config basic 'basic'\n\toption enable 'on'\n\n"
                              "config cloud 'cloud'\n\nconfig strategy 'strategy'\n");
            telemetry_debug_enable = 0;
            return uloop_init() == 0;
        }();
        require(started);
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
