#include "iwinfo_devices.h"

#include <cctype>
#include <cstring>
#include <ctime>
#include <vector>

#include "telemetry_blob.h"
#include "telemetry_bus_call.h"
#include "telemetry_json_message.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"

static constexpr int kTimeoutMs = 1000;
static constexpr int64_t kMaxAgeMs = 5000;
static constexpr int64_t kMaxWaitedMs = 1000; // for all the questions to one list
static constexpr int kMaxDevices = 32;
static constexpr int kMaxSections = 128;

static std::vector<IwinfoDevice> devices;
static bool devices_are_there;
static int64_t devices_asked; // ms, 0: never
static int64_t waited;        // ms, since the list was asked for

static int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// --- Questions ---

static void keep_reply(blob_attr *message, void *user) {
    *static_cast<JsonPtr *>(user) = telemetry_json_of_message(message);
}

// A service that makes itself waited for is left alone until the list is asked for anew.
static JsonPtr call(const char *method, const char *device) {
    JsonPtr reply;
    BlobBuffer arguments;
    if (device != nullptr)
        blobmsg_add_string(arguments.get(), "device", device);
    if (waited >= kMaxWaitedMs)
        return nullptr;
    const int64_t begun = now_ms();
    const TelemetryBusError error = telemetry_bus_call(telemetry_bus_named_socket(), "iwinfo", method,
                                                       arguments.head(), kTimeoutMs, keep_reply, &reply);
    waited += now_ms() - begun;
    if (waited >= kMaxWaitedMs)
        LOG_MISSING("iwinfo is too slow, the rest is left out");
    if (error == TELEMETRY_BUS_OK && cJSON_IsObject(reply.get()))
        return reply;
    if (error == TELEMETRY_BUS_NO_OBJECT)
        LOG_MISSING("no object iwinfo on the bus");
    else
        LOG_MISSING("iwinfo %s of %.16s has no answer that is one", method,
                    device != nullptr ? device : "all");
    return nullptr;
}

static JsonPtr results_of(const JsonPtr &reply, const char *member) {
    cJSON *object = reply.get();
    cJSON *list = cJSON_GetObjectItemCaseSensitive(object, member);
    return JsonPtr(cJSON_IsArray(list) ? cJSON_DetachItemViaPointer(object, list) : nullptr);
}

JsonPtr iwinfo_ask(const char *device, const char *method) {
    if (!iwinfo_is_there() || *device == '\0')
        return nullptr;
    JsonPtr results = results_of(call(method, device), "results");
    if (results == nullptr)
        LOG_MISSING("iwinfo %s of %.16s has no results", method, device);
    return results;
}

// --- Configuration ---

// One section wifi-iface.
struct WirelessSection {
    std::string ifname, ssid;
    int band;
    int network_type;
    bool is_station;
};

static std::string option_of(uci_context *uci, uci_section *section, const char *name) {
    uci_option *option = uci_lookup_option(uci, section, name);
    if (option == nullptr || option->type == UCI_TYPE_STRING)
        return option != nullptr ? option->v.string : "";
    std::string text; // a list, as of a network in several
    uci_element *element = nullptr;
    uci_foreach_element(&option->v.list, element) {
        text += text.empty() ? "" : " ";
        text += element->name;
    }
    return text;
}

static int band_of_radio(uci_context *uci, uci_package *package, const std::string &radio) {
    uci_section *section = uci_lookup_section(uci, package, radio.c_str());
    if (section == nullptr)
        return -1;
    const std::string band = option_of(uci, section, "band"), mode = option_of(uci, section, "hwmode");
    if (band == "2g" || (band.empty() && (mode == "11g" || mode == "11b")))
        return 0;
    if (band == "5g" || (band.empty() && mode == "11a"))
        return 1;
    return band == "6g" ? 2 : -1;
}

// Whether a word of the name begins so: "iot" is in "lan_IoT24", not in "studiotech".
static bool has_word(const std::string &network, const char *beginning) {
    const char *const text = network.c_str();
    for (const char *found = text; (found = strcasestr(found, beginning)) != nullptr; found++) {
        if (found == text || !isalpha(static_cast<unsigned char>(found[-1])))
            return true;
    }
    return false;
}

static int type_of_network(const std::string &network) {
    if (has_word(network, "guest"))
        return 1;
    return has_word(network, "iot") ? 2 : 0;
}

static std::vector<WirelessSection> read_sections() {
    std::vector<WirelessSection> sections;
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {});
    const LoadedPackage package(uci.get(), "wireless");
    if (package.get() == nullptr) {
        LOG_MISSING("package wireless cannot be read");
        return sections;
    }
    uci_element *element = nullptr;
    uci_foreach_element(&package.get()->sections, element) {
        uci_section *section = uci_to_section(element);
        if (strcmp(section->type, "wifi-iface") != 0 || option_of(uci.get(), section, "disabled") == "1")
            continue;
        // Meshes, monitors and the like serve no client.
        const std::string mode = option_of(uci.get(), section, "mode");
        if (!mode.empty() && mode != "ap" && mode != "sta")
            continue;
        if (sections.size() == kMaxSections)
            break;
        sections.push_back({option_of(uci.get(), section, "ifname"), option_of(uci.get(), section, "ssid"),
                            band_of_radio(uci.get(), package.get(), option_of(uci.get(), section, "device")),
                            type_of_network(option_of(uci.get(), section, "network")), mode == "sta"});
    }
    return sections;
}

// --- The list ---

static int band_of_mhz(double mhz) {
    if (mhz >= 2400 && mhz < 2500)
        return 0;
    if (mhz >= 5925)
        return 2;
    return mhz >= 4900 ? 1 : -1;
}

// An interface that no section of the configuration describes has no network.
static void join_section(IwinfoDevice *device, const char *mode,
                         const std::vector<WirelessSection> &sections) {
    for (const WirelessSection &section : sections) {
        const bool named = section.ifname == device->name;
        const bool alike = section.ifname.empty() && section.ssid == device->ssid &&
                           section.band == device->band &&
                           (mode == nullptr || strcmp(mode, section.is_station ? "Client" : "Master") == 0);
        if (!named && !alike)
            continue;
        device->is_station = section.is_station;
        device->network_type = section.is_station ? -1 : section.network_type;
        if (device->band < 0)
            device->band = section.band;
        return;
    }
}

static void add_device(const char *name, const std::vector<WirelessSection> &sections) {
    const JsonPtr info = call("info", name);
    if (info == nullptr)
        return; // gone since the list was made
    IwinfoDevice device = {name, "", "", -1, 0, 0, -1, false};
    const char *ssid = json_text(info.get(), "ssid"), *htmode = json_text(info.get(), "htmode");
    // No longer than they can be, whatever the service says.
    device.ssid.assign(ssid != nullptr ? ssid : "", ssid != nullptr ? strnlen(ssid, 32) : 0);
    device.htmode.assign(htmode != nullptr ? htmode : "", htmode != nullptr ? strnlen(htmode, 15) : 0);
    int64_t frequency = 0, channel = 0;
    json_int64(info.get(), "frequency", &frequency);
    json_int64(info.get(), "channel", &channel);
    device.mhz = static_cast<double>(frequency);
    device.channel = channel > 0 && channel < 1000 ? static_cast<int>(channel) : 0;
    device.band = band_of_mhz(device.mhz);
    join_section(&device, json_text(info.get(), "mode"), sections);
    devices.push_back(device);
}

static void ask_devices() {
    devices.clear();
    waited = 0;
    const JsonPtr names = results_of(call("devices", nullptr), "devices");
    devices_are_there = names != nullptr;
    if (!devices_are_there)
        return;
    const std::vector<WirelessSection> sections = read_sections();
    int seen = 0;
    const cJSON *name = nullptr;
    cJSON_ArrayForEach(name, names.get()) {
        if (seen++ == kMaxDevices) {
            LOG_MISSING("iwinfo has more than %d devices, the rest is left out", kMaxDevices);
            return;
        }
        if (cJSON_IsString(name) && strlen(name->valuestring) < 16)
            add_device(name->valuestring, sections);
    }
}

bool iwinfo_is_there() {
    const int64_t now = now_ms();
    if (devices_asked == 0 || now - devices_asked > kMaxAgeMs) {
        ask_devices();
        devices_asked = now_ms();
    }
    return devices_are_there;
}

void iwinfo_forget_devices() {
    devices.clear();
    devices_asked = 0;
}

template <typename Fits> static const IwinfoDevice *find_device(Fits fits) {
    if (!iwinfo_is_there())
        return nullptr;
    for (const IwinfoDevice &device : devices) {
        if (fits(device))
            return &device;
    }
    return nullptr;
}

const IwinfoDevice *iwinfo_find_ap(int band, int network_type) {
    return find_device([&](const IwinfoDevice &device) {
        return device.band == band && device.network_type >= 0 &&
               (network_type < 0 || device.network_type == network_type);
    });
}

const IwinfoDevice *iwinfo_find_station(int band) {
    return find_device([&](const IwinfoDevice &device) { return device.band == band && device.is_station; });
}

const IwinfoDevice *iwinfo_find_device(const char *name) {
    return find_device([&](const IwinfoDevice &device) { return device.name == name; });
}

std::vector<std::string> iwinfo_aps_like(const char *name) {
    std::vector<std::string> names = {name};
    const IwinfoDevice *like = iwinfo_find_device(name);
    if (like == nullptr || like->network_type < 0)
        return names;
    for (const IwinfoDevice &device : devices) {
        if (device.name != like->name && device.band == like->band &&
            device.network_type == like->network_type)
            names.push_back(device.name);
    }
    return names;
}
