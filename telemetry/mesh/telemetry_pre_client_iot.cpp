// Which clients are IoT devices: the modules' configuration names them by MAC.
#include "telemetry_pre_client.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"
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

namespace {
// The devices that one module knows, read once and asked for many clients.
class IotDevices {
  public:
    // With one line when the package cannot be loaded.
    explicit IotDevices(const char *package) {
        const TelemetryUciPtr uci = telemetry_uci_context(TELEMETRY_UCI_SYSTEM);
        const LoadedPackage loaded(uci.get(), package);
        if (loaded.get() == nullptr) {
            LOG_MISSING("uci_load failed, package=%s.", package);
            return;
        }
        uci_element *element = nullptr;
        uci_foreach_element(&loaded.get()->sections, element) add(uci.get(), uci_to_section(element));
        for (const Device &device : devices_)
            first_of_mac_.emplace(device.mac, &device);
    }

    // False when the module does not know the client.
    bool identify(PreClientInfo *client, const char *module) const {
        const Device *device = find(client->mac);
        if (device == nullptr)
            return false;
        client->is_iotdevice = 1;
        client->iot_module = module;
        if (device->has_category)
            client->iot_category = device->category;
        return true;
    }

  private:
    struct Device {
        char mac[sizeof(PreClientInfo::mac)];
        bool has_category;
        const char *category;
    };

    void add(uci_context *uci, uci_section *section) {
        const char *value = uci_lookup_option_string(uci, section, "mac");
        char mac[kMacTextSize] = {};
        if (value == nullptr || mac_to_upper_short_line(mac, value) != 0 || mac[0] == '\0' ||
            strlen(mac) >= sizeof(Device::mac)) // longer than any client's
            return;
        Device device = {};
        copy_text(device.mac, mac);
        const char *category = uci_lookup_option_string(uci, section, "category");
        device.has_category = category != nullptr;
        device.category = category != nullptr ? iot_category_of(category) : nullptr;
        devices_.push_back(device);
        shortest_mac_ = std::min(shortest_mac_, strlen(mac));
    }

    // First device whose address the client's begins with. Only as many beginnings are looked up as there are
    // lengths of addresses, which is one but for odd entries.
    const Device *find(std::string_view mac) const {
        const Device *first = nullptr;
        for (size_t length = shortest_mac_; length <= mac.size(); ++length) {
            const auto found = first_of_mac_.find(mac.substr(0, length));
            if (found != first_of_mac_.end() && (first == nullptr || found->second < first))
                first = found->second;
        }
        return first;
    }

    std::vector<Device> devices_; // in file order
    std::unordered_map<std::string_view, const Device *> first_of_mac_;
    size_t shortest_mac_ = sizeof(Device::mac);
};
} // namespace

int identify_iot_client_in_iot_module(PreClientInfo *client, const char *package, const char *module) {
    if (client == nullptr || package == nullptr || *package == '\0' || module == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    return IotDevices(package).identify(client, module) ? 0 : -1;
}

int telemetry_identify_iot_device_from_client_list() {
    if (telemetry_pre_collect.clients == nullptr) {
        LOG_ERROR("client list is not exist");
        return -1;
    }
    // A module's package is read when the first client gets that far.
    std::optional<IotDevices> modules[std::size(kIotModules)];
    for (int i = 0; i < telemetry_pre_collect.client_num; ++i) {
        PreClientInfo *client = &telemetry_pre_collect.clients[i];
        if (client->is_exist == 0)
            continue;
        for (size_t m = 0; m < std::size(kIotModules); ++m) {
            if (!modules[m])
                modules[m].emplace(kIotModules[m].package);
            if (modules[m]->identify(client, kIotModules[m].name))
                break;
        }
    }
    return 0;
}
