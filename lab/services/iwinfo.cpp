// `iwinfo` of a stock system: the node's member "iwinfo" holds, by device, "info", "assoclist" and "survey"
// as they are answered. An unknown device is answered with nothing.
#include "replies.h"

namespace lab {

namespace {

const cJSON *devices_of(const ScenarioNode &self) {
    return cJSON_GetObjectItemCaseSensitive(self.json, "iwinfo");
}

const cJSON *asked_member(const ScenarioNode &self, const blob_attr *message, const char *name) {
    static const blobmsg_policy policy = {"device", BLOBMSG_TYPE_STRING};
    blob_attr *device = nullptr;
    blobmsg_parse(&policy, 1, &device, blob_data(message), static_cast<unsigned>(blob_len(message)));
    const cJSON *entry = device != nullptr
                             ? cJSON_GetObjectItemCaseSensitive(devices_of(self), blobmsg_get_string(device))
                             : nullptr;
    return cJSON_GetObjectItemCaseSensitive(entry, name);
}

void add_results(blob_buf *reply, const cJSON *list) {
    if (!cJSON_IsArray(list))
        return;
    JsonTree answer(cJSON_CreateObject());
    cJSON_AddItemToObject(answer.get(), "results", cJSON_Duplicate(list, 1));
    blobmsg_add_json_from_string(reply, print_json(answer.get()).c_str());
}

} // namespace

void iwinfo_devices(const ScenarioNode &self, const blob_attr *, blob_buf *reply) {
    void *list = blobmsg_open_array(reply, "devices");
    const cJSON *device;
    cJSON_ArrayForEach(device, devices_of(self)) blobmsg_add_string(reply, nullptr, device->string);
    blobmsg_close_array(reply, list);
}

void iwinfo_info(const ScenarioNode &self, const blob_attr *message, blob_buf *reply) {
    if (const cJSON *info = asked_member(self, message, "info"))
        blobmsg_add_json_from_string(reply, print_json(info).c_str());
}

void iwinfo_assoclist(const ScenarioNode &self, const blob_attr *message, blob_buf *reply) {
    add_results(reply, asked_member(self, message, "assoclist"));
}

void iwinfo_survey(const ScenarioNode &self, const blob_attr *message, blob_buf *reply) {
    add_results(reply, asked_member(self, message, "survey"));
}

} // namespace lab
