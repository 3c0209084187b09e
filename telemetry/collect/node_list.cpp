#include "node_list.h"

#include <cstring>
#include <utility>

#include "collector_patterns.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_snapshot.h"
#include "telemetry_utils.h"

static bool is_listed(const cJSON *list, const char *digest) {
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, list) {
        const char *known = json_text(entry, "dm");
        if (known != nullptr && digest != nullptr && strcmp(known, digest) == 0)
            return true;
    }
    return false;
}

void telemetry_node_list_add(cJSON *list, const char *mac, JsonPtr entry) {
    char text[kMacTextSize] = {};
    const JsonPtr named(cJSON_CreateObject());
    if (!named || mac == nullptr || mac_to_upper_short_line(text, mac) != 0 ||
        telemetry_add_mac_md5_to_cJSON_object(named.get(), "dm", text) != 0) {
        LOG_ERROR("cJSON_Add Mac Md5 failed");
        return;
    }
    if (is_listed(list, json_text(named.get(), "dm")))
        return;
    cJSON_InsertItemInArray(entry.get(), 0, cJSON_DetachItemFromObjectCaseSensitive(named.get(), "dm"));
    telemetry_attach_element(list, std::move(entry));
}

void telemetry_node_list_add_answer(cJSON *list, const cJSON *result, JsonPtr entry) {
    const char *sender = json_text(result, "mac");
    if (sender == nullptr) {
        LOG_ERROR("answer without mac");
        return;
    }
    char mac[kMacTextSize] = {};
    const MeshDeviceInfo *device =
        mac_to_upper_short_line(mac, sender) == 0 ? telemetry_find_device_by_mac(mac) : nullptr;
    if (device == nullptr) {
        LOG_DEBUG("answer of no node of the mesh");
        return;
    }
    telemetry_node_list_add(list, device->mac, std::move(entry));
}
