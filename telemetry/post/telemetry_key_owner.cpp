#include "telemetry_key_owner.h"

#include <cstring>

#include "telemetry_log.h"
#include "telemetry_uci.h"

static constexpr char kOwnerOption[] = "accessDevice";
static constexpr char kNobody[] = "-";

// A character more than an id has, so that a longer text is no id.
static bool read_owner(char (&owner)[sizeof(TelemetryCtx::dev_id) + 1]) {
    return telemetry_get_uci_value("telemetry", "cloud", kOwnerOption, owner, sizeof(owner),
                                   TELEMETRY_UCI_SYSTEM) == 0;
}

// A device without an id leaves the option alone.
static void write_owner(const TelemetryCtx *ctx, const char *owner) {
    char written[sizeof(ctx->dev_id) + 1] = {};
    if (ctx->dev_id[0] == '\0' || (read_owner(written) && strcmp(written, owner) == 0))
        return;
    if (telemetry_set_uci_value("telemetry", "cloud", kOwnerOption, owner, TELEMETRY_UCI_SYSTEM) != 0)
        LOG_ERROR("telemetry.cloud.%s was not written", kOwnerOption);
}

void telemetry_doubt_key_owner(const TelemetryCtx *ctx) {
    write_owner(ctx, kNobody);
}

void telemetry_keep_key_owner(const TelemetryCtx *ctx) {
    write_owner(ctx, ctx->dev_id);
}

void telemetry_check_key_owner(TelemetryCtx *ctx) {
    char owner[sizeof(ctx->dev_id) + 1] = {};
    if (ctx->access_key[0] == '\0')
        return;
    if (!read_owner(owner))
        return telemetry_keep_key_owner(ctx);
    if (strcmp(owner, ctx->dev_id) == 0)
        return;
    LOG_INFO("the access key in the configuration %s: a new one is fetched",
             strcmp(owner, kNobody) == 0 ? "may be half written" : "is another device's");
    memset(ctx->access_key, 0, sizeof(ctx->access_key));
    memset(ctx->access_secret, 0, sizeof(ctx->access_secret));
}
