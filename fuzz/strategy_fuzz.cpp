// The text of a collect strategy.
#include <cstdint>
#include <string>

#include "support/fuzz_upload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string content(reinterpret_cast<const char *>(data), size);
    FuzzContext context;
    TelemetryCtx *ctx = &context.ctx;
    ctx->collect_interval_strategy1 = 1;
    ctx->collect_interval_strategy2 = 2;
    ctx->post_interval = 3;
    const bool unchanged = telemetry_update_strategy(ctx, content.c_str()) != 0;
    const bool kept = ctx->collect_interval_strategy1 == 1 && ctx->collect_interval_strategy2 == 2 &&
                      ctx->post_interval == 3;
    require(unchanged == kept);
    return 0;
}
