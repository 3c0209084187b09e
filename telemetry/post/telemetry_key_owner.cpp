#include "telemetry_key_owner.h"

#include <cstring>
#include <utility>

#include "telemetry_log.h"
#include "telemetry_uci.h"

static constexpr char kOwnerOption[] = "accessDevice";
static constexpr char kNobody[] = "-";
static bool owner_missing; // beside the key that this run began with

enum class OwnerOption { there, missing, unreadable };

// A character more than an id has, so that a longer text is no id.
static OwnerOption read_owner(char (&owner)[sizeof(TelemetryCtx::dev_id) + 1]) {
    const TelemetryUciPtr uci = telemetry_uci_context(TELEMETRY_UCI_SYSTEM);
    const int result =
        uci ? uci_get_value(uci.get(), "telemetry", "cloud", kOwnerOption, owner, sizeof(owner)) : -1;
    return result == 0 ? OwnerOption::there : result == -1 ? OwnerOption::unreadable : OwnerOption::missing;
}

// A device without an id adds no option, but a key that is nobody's is so there too.
static void write_owner(const TelemetryCtx *ctx, const char *owner) {
    char written[sizeof(ctx->dev_id) + 1] = {};
    const OwnerOption option = read_owner(written);
    if (option == OwnerOption::there ? strcmp(written, owner) == 0 : ctx->dev_id[0] == '\0')
        return;
    if (telemetry_set_uci_value("telemetry", "cloud", kOwnerOption, owner, TELEMETRY_UCI_SYSTEM) != 0)
        LOG_ERROR("telemetry.cloud.%s was not written", kOwnerOption);
}

void telemetry_doubt_key_owner(const TelemetryCtx *ctx) {
    owner_missing = false;
    write_owner(ctx, kNobody);
}

void telemetry_keep_key_owner(const TelemetryCtx *ctx) {
    if (ctx->dev_id[0] != '\0')
        write_owner(ctx, ctx->dev_id);
}

void telemetry_note_key_owner(const TelemetryCtx *ctx) {
    if (std::exchange(owner_missing, false))
        telemetry_keep_key_owner(ctx);
}

void telemetry_check_key_owner(TelemetryCtx *ctx) {
    char owner[sizeof(ctx->dev_id) + 1] = {};
    owner_missing = false;
    if (ctx->access_key[0] == '\0')
        return;
    const OwnerOption option = read_owner(owner);
    owner_missing = option == OwnerOption::missing;
    if (option == OwnerOption::unreadable) // whose it is stays as it is written
        LOG_ERROR("telemetry.cloud.%s cannot be read", kOwnerOption);
    if (option != OwnerOption::there || strcmp(owner, ctx->dev_id) == 0)
        return;
    LOG_INFO("the access key in the configuration %s: a new one is fetched",
             strcmp(owner, kNobody) == 0 ? "may be half written" : "is another device's");
    memset(ctx->access_key, 0, sizeof(ctx->access_key));
    memset(ctx->access_secret, 0, sizeof(ctx->access_secret));
}
