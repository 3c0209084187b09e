#include "usb_info.h"

#include <cctype>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <utility>

#include "collector_patterns.h"
#include "collectors.h"
#include "node_list.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_snapshot.h"
#include "telemetry_transfer.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kUsbRows[] = {
    {0, "ue", 3, TELEMETRY_UCI_SYSTEM, 0, "usb", "settings", "usb_enable", TELEMETRY_VALUE_INT},
};

// Entries of the device directory that are looked at.
static constexpr int kMaxUsbEntries = 256;
static constexpr char kHubClass[] = "09";

namespace {
// A class code of a device or interface, and the type it stands for. A device with several (a modem that
// brings its own drive) has the type of the highest rank.
struct UsbClass {
    const char *code;
    TelemetryUsbType type;
    int rank;
};
} // namespace

static constexpr UsbClass kUsbClasses[] = {
    {"02", TELEMETRY_USB_MODEM, 3},
    {"0a", TELEMETRY_USB_MODEM, 3},
    {"07", TELEMETRY_USB_PRINTER, 2},
    {"08", TELEMETRY_USB_STORAGE, 1},
};

static std::string read_attribute(const std::string &entry, const char *name) {
    const std::string path = std::string(kUsbDeviceDir) + "/" + entry + "/" + name;
    char text[16] = "";
    if (telemetry_file_exists(path.c_str()) != 1 ||
        telemetry_parse_file(path.c_str(), text, sizeof(text)) != 0)
        return {};
    std::string value = text;
    while (!value.empty() && isspace(static_cast<unsigned char>(value.back())) != 0)
        value.pop_back();
    return value;
}

static void copy_usb_id(char (&destination)[8], const std::string &id) {
    if (id.size() == 4 && id.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos)
        copy_text(destination, id.c_str());
    else
        LOG_ERROR("usb id is not four hexadecimal digits");
}

static void raise_type(const std::string &code, TelemetryUsbType *type, int *rank) {
    for (const UsbClass &known : kUsbClasses) {
        if (code == known.code && known.rank > *rank) {
            *type = known.type;
            *rank = known.rank;
        }
    }
}

// Names in the device directory: "usb1" is a root hub, "1-1" a device, "1-1:1.0" one of its interfaces. The
// first device by name that is no hub is reported.
static std::string find_usb_device(const std::string &directory) {
    std::string first;
    int seen = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
         at.increment(error)) {
        if (seen++ == kMaxUsbEntries) {
            LOG_ERROR("%s has more than %d entries, the rest is left out", kUsbDeviceDir, kMaxUsbEntries);
            break;
        }
        const std::string name = at->path().filename().string();
        if (name.find(':') != std::string::npos || name.rfind("usb", 0) == 0)
            continue;
        if (!first.empty() && first < name)
            continue;
        const std::string device_class = read_attribute(name, "bDeviceClass");
        if (!device_class.empty() && device_class != kHubClass)
            first = name;
    }
    return first;
}

static TelemetryUsbType find_usb_type(const std::string &directory, const std::string &device) {
    TelemetryUsbType type = TELEMETRY_USB_OTHER;
    int rank = 0;
    raise_type(read_attribute(device, "bDeviceClass"), &type, &rank);
    int seen = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator at(directory, error), end;
         !error && at != end && seen < kMaxUsbEntries; at.increment(error), ++seen) {
        const std::string name = at->path().filename().string();
        if (name.rfind(device + ":", 0) == 0)
            raise_type(read_attribute(name, "bInterfaceClass"), &type, &rank);
    }
    return type;
}

int collect_myself_usb_info(UsbInfoRecord *record) {
    if (record == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    *record = {};
    record->usb_enable =
        telemetry_get_uci_enabled_value("usb", "settings", "usb_enable", TELEMETRY_UCI_SYSTEM);
    record->config_is_change =
        telemetry_update_tmp_backup_config_by_telemetry_index(kUsbRows, 1) == 1 ? 1 : 0;
    const std::string directory = telemetry_path(kUsbDeviceDir);
    const std::string device = find_usb_device(directory);
    if (device.empty())
        return 0;
    record->usb_type = find_usb_type(directory, device);
    copy_usb_id(record->vendor_id, read_attribute(device, "idVendor"));
    copy_usb_id(record->product_id, read_attribute(device, "idProduct"));
    return 0;
}

// --- Every node ---

// Ids are there only with a device.
static bool fill_entry(cJSON *entry, const UsbInfoRecord &record) {
    bool filled = cJSON_AddNumberToObject(entry, "ue", record.usb_enable) != nullptr &&
                  cJSON_AddNumberToObject(entry, "cc", record.config_is_change) != nullptr &&
                  cJSON_AddNumberToObject(entry, "ut", record.usb_type) != nullptr;
    if (record.vendor_id[0] != '\0')
        filled = cJSON_AddStringToObject(entry, "vi", record.vendor_id) != nullptr && filled;
    if (record.product_id[0] != '\0')
        filled = cJSON_AddStringToObject(entry, "pi", record.product_id) != nullptr && filled;
    return filled;
}

static int32_t read_flag(const cJSON *result, const char *key) {
    int64_t flag = 0;
    return json_int64(result, key, &flag) && flag != 0 ? 1 : 0;
}

static void apply_usb_result(const cJSON *result, void *user) {
    UsbInfoRecord record = {};
    record.usb_enable = read_flag(result, "usb_enable");
    record.config_is_change = read_flag(result, "config_is_change");
    int64_t type = TELEMETRY_USB_NONE;
    json_int64(result, "usb_type", &type);
    record.usb_type = type >= TELEMETRY_USB_NONE && type <= TELEMETRY_USB_OTHER ? static_cast<int32_t>(type)
                                                                                : TELEMETRY_USB_OTHER;
    if (const char *id = json_text(result, "vendor_id"); id != nullptr && *id != '\0')
        copy_usb_id(record.vendor_id, id);
    if (const char *id = json_text(result, "product_id"); id != nullptr && *id != '\0')
        copy_usb_id(record.product_id, id);
    JsonPtr entry(cJSON_CreateObject());
    if (entry && fill_entry(entry.get(), record))
        telemetry_node_list_add(static_cast<cJSON *>(user), json_text(result, "mac"), std::move(entry));
}

// Whether the list says more than that a change which has been reported is over, or that the nodes answered
// in another order.
static bool has_changed(const cJSON *list) {
    const JsonPtr lasting(cJSON_Duplicate(list, true));
    std::set<std::string> entries;
    cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, lasting.get()) {
        cJSON_DeleteItemFromObjectCaseSensitive(entry, "cc");
        if (const TextPtr text = telemetry_json_print(entry); text)
            entries.insert(text.get());
    }
    const JsonPtr sorted(cJSON_CreateArray());
    for (const std::string &text : entries)
        cJSON_AddItemToArray(sorted.get(), cJSON_CreateString(text.c_str()));
    return telemetry_collect_digest_changed("usb", "usb_info", sorted.get(), "md5 same, don't collect!") == 1;
}

int collect_usb_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    JsonPtr list(cJSON_CreateArray());
    JsonPtr own(cJSON_CreateObject());
    UsbInfoRecord record = {};
    if (!list || !own || collect_myself_usb_info(&record) != 0 || !fill_entry(own.get(), record)) {
        LOG_ERROR("cJSON_CreateObject failed");
        return -1;
    }
    telemetry_node_list_add(list.get(), ctx->dev_mac, std::move(own));
    if (telemetry_is_mesh_network() &&
        telemetry_transfer_request(TELEMETRY_TRANSFER_USB, true, nullptr, apply_usb_result, list.get()) != 0)
        LOG_ERROR("get re usb info failed");
    const auto items = static_cast<uint32_t>(cJSON_GetArraySize(list.get()));
    if (items == 0 || !has_changed(list.get()))
        return 0;
    if (!telemetry_attach_member(payload, "ul", std::move(list)))
        return -1;
    *count += items;
    return 0;
}
