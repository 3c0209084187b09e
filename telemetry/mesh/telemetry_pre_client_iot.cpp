// Which clients are IoT devices: the modules' configuration names them by MAC.
#include "telemetry_pre_client.h"

#include <cstring>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

struct IotModule {
    const char *package;
    const char *name;
};

// Searched in this order: a client that two modules know is the first one's.
static constexpr IotModule kIotModules[] = {
    {"iot_kiro", "kiro"},
    {"iot_zuna", "zuna"},
    {"philips_hue", "hue"},
    {"matter", "matter"},
};

static constexpr const char *kIotCategories[] = {"light",        "switch", "lock",
                                                 "occupancyTag", "sensor", "thermostat"};

// First category that begins with the value, or null.
static const char *iot_category_of(const char *value) {
    for (const char *category : kIotCategories) {
        if (strncmp(category, value, strlen(value)) == 0)
            return category;
    }
    return nullptr;
}

static bool section_names_client(uci_context *uci, uci_section *section, const PreClientInfo *client) {
    const char *value = uci_lookup_option_string(uci, section, "mac");
    char mac[kMacTextSize] = {};
    if (value == nullptr || mac_to_upper_short_line(mac, value) != 0 || mac[0] == '\0')
        return false;
    return strncmp(client->mac, mac, strlen(mac)) == 0;
}

int identify_iot_client_in_iot_module(PreClientInfo *client, const char *package, const char *module) {
    if (client == nullptr || package == nullptr || *package == '\0' || module == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const UciContextPtr uci(telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM));
    uci_package *loaded = nullptr;
    if (!uci || uci_load(uci.get(), package, &loaded) != UCI_OK) {
        LOG_MISSING_ONCE("uci_load failed, package=%s.", package);
        return -1;
    }
    int result = -1;
    uci_element *element = nullptr;
    uci_foreach_element(&loaded->sections, element) {
        uci_section *section = uci_to_section(element);
        if (!section_names_client(uci.get(), section, client))
            continue;
        client->is_iotdevice = 1;
        client->iot_module = module;
        const char *category = uci_lookup_option_string(uci.get(), section, "category");
        if (category != nullptr)
            client->iot_category = iot_category_of(category);
        result = 0;
        break;
    }
    uci_unload(uci.get(), loaded);
    return result;
}

int telemetry_identify_iot_device_from_client_list() {
    if (telemetry_pre_collect.clients == nullptr) {
        LOG_ERROR("client list is not exist");
        return -1;
    }
    for (int i = 0; i < telemetry_pre_collect.client_num; ++i) {
        PreClientInfo *client = &telemetry_pre_collect.clients[i];
        if (client->is_exist == 0)
            continue;
        for (const IotModule &module : kIotModules) {
            if (identify_iot_client_in_iot_module(client, module.package, module.name) == 0)
                break;
        }
    }
    return 0;
}
