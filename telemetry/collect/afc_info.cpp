#include "afc_info.h"

#include <memory>
#include <new>

#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_pre_collect.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

// Parsed content of the agent's status file; null when there is none, or after logging that it is not an object.
static JsonPtr read_afc_status() {
    if (telemetry_file_exists(kAfcStatusPath) != 1)
        return nullptr;
    const std::unique_ptr<char[]> text(new (std::nothrow) char[kListFileSize]());
    if (!text || telemetry_parse_file(kAfcStatusPath, text.get(), kListFileSize) != 0)
        return nullptr;
    JsonPtr status(cJSON_Parse(text.get()));
    if (!cJSON_IsObject(status.get())) {
        LOG_ERROR("%s holds no JSON object", kAfcStatusPath);
        return nullptr;
    }
    return status;
}

// A channel without its number is left out.
static void add_channel(cJSON *array, const cJSON *channel) {
    const cJSON *number = cJSON_GetObjectItemCaseSensitive(channel, "channel");
    const cJSON *op_class = cJSON_GetObjectItemCaseSensitive(channel, "op_class");
    const cJSON *power = cJSON_GetObjectItemCaseSensitive(channel, "max_eirp");
    if (!cJSON_IsNumber(number))
        return;
    JsonPtr entry(cJSON_CreateObject());
    if (cJSON_IsNumber(op_class))
        cJSON_AddNumberToObject(entry.get(), "oc", op_class->valuedouble);
    cJSON_AddNumberToObject(entry.get(), "ch", number->valuedouble);
    if (cJSON_IsNumber(power))
        cJSON_AddNumberToObject(entry.get(), "pw", power->valuedouble);
    if (cJSON_AddItemToArray(array, entry.get()))
        entry.release();
}

static void add_channels(cJSON *object, const cJSON *channels) {
    if (!cJSON_IsArray(channels))
        return;
    cJSON *array = cJSON_AddArrayToObject(object, "cl");
    int count = 0;
    const cJSON *channel = nullptr;
    cJSON_ArrayForEach(channel, channels) {
        if (count++ == kAfcChannelCount) {
            LOG_ERROR("AFC status has more than %d channels, the rest is left out", kAfcChannelCount);
            return;
        }
        add_channel(array, channel);
    }
}

int collect_myself_afc_info(cJSON *object) {
    if (object == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const int enabled = telemetry_get_uci_enabled_value("afc", "afc", "enable", TELEMETRY_UCI_SYSTEM);
    cJSON_AddNumberToObject(object, "en", enabled);
    const JsonPtr status = read_afc_status();
    if (!status)
        return 0;
    if (const char *state = json_text(status.get(), "state"); state != nullptr)
        cJSON_AddStringToObject(object, "st", state);
    const cJSON *expires = cJSON_GetObjectItemCaseSensitive(status.get(), "expires_in");
    if (cJSON_IsNumber(expires))
        cJSON_AddNumberToObject(object, "ex", expires->valuedouble);
    add_channels(object, cJSON_GetObjectItemCaseSensitive(status.get(), "channels"));
    return 0;
}
