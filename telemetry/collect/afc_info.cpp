#include "afc_info.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "collector_patterns.h"
#include "collectors.h"
#include "node_list.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_snapshot.h"
#include "telemetry_transfer.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

// Longest state that is reported.
static constexpr size_t kMaxStateLength = 32;

// Parsed content of the agent's status file; null when there is none, or after logging that it is not an
// object.
static JsonPtr read_afc_status() {
    if (telemetry_file_exists(kAfcStatusPath) != 1)
        return nullptr;
    const TextPtr text = telemetry_read_text(kAfcStatusPath, kListFileSize);
    if (text == nullptr)
        return nullptr;
    JsonPtr status(cJSON_Parse(text.get()));
    if (!cJSON_IsObject(status.get())) {
        LOG_ERROR("%s holds no JSON object", kAfcStatusPath);
        return nullptr;
    }
    return status;
}

namespace {
// How a source names the members of a channel.
struct ChannelKeys {
    const char *op_class, *channel, *power;
};
} // namespace

static constexpr ChannelKeys kAgentChannel = {"op_class", "channel", "max_eirp"};
static constexpr ChannelKeys kReportedChannel = {"oc", "ch", "pw"};

// Any other would only be long: up to 312 characters.
static bool is_plain_number(const cJSON *number) {
    return cJSON_IsNumber(number) && std::fabs(number->valuedouble) <= INT32_MAX;
}

// false when there is something, but no plain number.
static bool add_number(cJSON *object, const char *key, const cJSON *number) {
    if (!is_plain_number(number))
        return number == nullptr;
    return cJSON_AddNumberToObject(object, key, number->valuedouble) != nullptr;
}

static void add_expiry(cJSON *object, const cJSON *seconds) {
    if (!add_number(object, "ex", seconds))
        LOG_ERROR("AFC grant's expiry is no number in range");
}

// The state is one word; anything else could say where this node is.
static void add_state(cJSON *object, const char *state) {
    if (state == nullptr)
        return;
    static constexpr char kWord[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    const size_t length = strspn(state, kWord);
    if (length == 0 || length > kMaxStateLength || state[length] != '\0') {
        LOG_ERROR("AFC state is no word of at most %zu characters", kMaxStateLength);
        return;
    }
    cJSON_AddStringToObject(object, "st", state);
}

// A channel without its number is left out. false when anything was.
static bool add_channel(cJSON *array, const cJSON *channel, const ChannelKeys &keys) {
    const cJSON *number = cJSON_GetObjectItemCaseSensitive(channel, keys.channel);
    JsonPtr entry(cJSON_CreateObject());
    if (!is_plain_number(number) || !entry)
        return false;
    bool whole = add_number(entry.get(), kReportedChannel.op_class,
                            cJSON_GetObjectItemCaseSensitive(channel, keys.op_class));
    whole = add_number(entry.get(), kReportedChannel.channel, number) && whole;
    whole = add_number(entry.get(), kReportedChannel.power,
                       cJSON_GetObjectItemCaseSensitive(channel, keys.power)) &&
            whole;
    return telemetry_attach_element(array, std::move(entry)) && whole;
}

static void add_channels(cJSON *object, const cJSON *channels, const ChannelKeys &keys) {
    if (!cJSON_IsArray(channels))
        return;
    cJSON *array = cJSON_AddArrayToObject(object, "cl");
    int count = 0, broken = 0;
    const cJSON *channel = nullptr;
    cJSON_ArrayForEach(channel, channels) {
        if (count++ == kAfcChannelCount) {
            LOG_ERROR("AFC status has more than %d channels, the rest is left out", kAfcChannelCount);
            break;
        }
        if (!add_channel(array, channel, keys))
            ++broken;
    }
    if (broken > 0)
        LOG_ERROR("AFC status has %d channels with members that are no numbers in range", broken);
}

int collect_myself_afc_info(cJSON *object) {
    if (object == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    int enabled = 0;
    if (telemetry_read_flag("afc", "afc", "enable", &enabled))
        cJSON_AddNumberToObject(object, "en", enabled);
    const JsonPtr status = read_afc_status();
    if (!status)
        return 0;
    add_state(object, json_text(status.get(), "state"));
    add_expiry(object, cJSON_GetObjectItemCaseSensitive(status.get(), "expires_in"));
    add_channels(object, cJSON_GetObjectItemCaseSensitive(status.get(), "channels"), kAgentChannel);
    return 0;
}

// --- Every node ---

// What a satellite sent is copied member by member: nothing that is not known passes on to the cloud.
static void apply_afc_result(const cJSON *result, void *user) {
    JsonPtr entry(cJSON_CreateObject());
    const cJSON *enabled = cJSON_GetObjectItemCaseSensitive(result, "en");
    if (!entry)
        return;
    if (cJSON_IsNumber(enabled))
        cJSON_AddNumberToObject(entry.get(), "en", enabled->valuedouble != 0 ? 1 : 0);
    add_state(entry.get(), json_text(result, "st"));
    add_expiry(entry.get(), cJSON_GetObjectItemCaseSensitive(result, "ex"));
    add_channels(entry.get(), cJSON_GetObjectItemCaseSensitive(result, "cl"), kReportedChannel);
    telemetry_node_list_add_answer(static_cast<cJSON *>(user), result, std::move(entry));
}

int collect_afc_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_stgy2_now == 0) {
        LOG_DEBUG("dont need to collect afc info!");
        return 0;
    }
    if (check_is_afc_support() != 1)
        return 0;
    JsonPtr list(cJSON_CreateArray());
    JsonPtr own(cJSON_CreateObject());
    if (!list || !own || collect_myself_afc_info(own.get()) != 0) {
        LOG_ERROR("cJSON_CreateObject failed");
        return -1;
    }
    telemetry_node_list_add(list.get(), ctx->dev_mac, std::move(own));
    if (telemetry_is_mesh_network() &&
        telemetry_transfer_request(TELEMETRY_TRANSFER_AFC, true, nullptr, apply_afc_result, list.get()) != 0)
        LOG_ERROR("get re afc info failed");
    const auto items = static_cast<uint32_t>(cJSON_GetArraySize(list.get()));
    if (items == 0)
        return 0;
    if (!telemetry_attach_member(payload, "al", std::move(list)))
        return -1;
    *count += items;
    return 0;
}
