#include "usb_info.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "collector_patterns.h"
#include "collectors.h"
#include "node_list.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_snapshot.h"
#include "telemetry_transfer.h"
#include "telemetry_uci.h"
#include "telemetry_uci_backup.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"

static constexpr TelemetryIndexEntry kUsbRows[] = {
    {0, "ue", 3, TELEMETRY_UCI_SYSTEM, 0, "usb", "settings", "usb_enable", TELEMETRY_VALUE_INT},
};

// Entries of the device directory that are looked at.
static constexpr size_t kMaxUsbEntries = 256;
static constexpr char kHubClass[] = "09";

namespace {
// What an interface is, and the type of device it stands for. A device with several (a modem that brings its
// own drive) has the type of the highest rank.
struct UsbKind {
    const char *code; // driver's name, or class, subclass and protocol with "." for any digit
    TelemetryUsbType type;
    int rank;
};
} // namespace

static constexpr UsbKind kUsbDrivers[] = {
    {"qmi_wwan", TELEMETRY_USB_MODEM, 3},       {"cdc_mbim", TELEMETRY_USB_MODEM, 3},
    {"huawei_cdc_ncm", TELEMETRY_USB_MODEM, 3}, {"rndis_host", TELEMETRY_USB_MODEM, 3},
    {"cdc_wdm", TELEMETRY_USB_MODEM, 3},        {"option", TELEMETRY_USB_MODEM, 3},
    {"sierra", TELEMETRY_USB_MODEM, 3},         {"sierra_net", TELEMETRY_USB_MODEM, 3},
    {"qcserial", TELEMETRY_USB_MODEM, 3},       {"hso", TELEMETRY_USB_MODEM, 3},
    {"ipheth", TELEMETRY_USB_MODEM, 3},         {"usblp", TELEMETRY_USB_PRINTER, 2},
    {"usb-storage", TELEMETRY_USB_STORAGE, 1},  {"uas", TELEMETRY_USB_STORAGE, 1},
};

// A plain serial or Ethernet adapter has class 02, too: only what a modem alone has counts.
static constexpr UsbKind kUsbClasses[] = {
    {"0208..", TELEMETRY_USB_MODEM, 3},   // wireless handset
    {"0209..", TELEMETRY_USB_MODEM, 3},   // device management
    {"020e..", TELEMETRY_USB_MODEM, 3},   // MBIM
    {"0202ff", TELEMETRY_USB_MODEM, 3},   // RNDIS, in its three forms
    {"e00103", TELEMETRY_USB_MODEM, 3},   //
    {"ef0401", TELEMETRY_USB_MODEM, 3},   //
    {"ff42..", TELEMETRY_USB_OTHER, 0},   // debugging a telephone
    {"ff....", TELEMETRY_USB_MODEM, 3},   // the maker's own, QMI among them, unless a driver knows better
    {"07....", TELEMETRY_USB_PRINTER, 2}, //
    {"08....", TELEMETRY_USB_STORAGE, 1},
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

static bool fits_code(const std::string &code, const char *pattern) {
    for (const char c : code) {
        if (*pattern == '\0' || (*pattern != '.' && *pattern != c))
            return false;
        ++pattern;
    }
    return *pattern == '\0';
}

// The kind of an interface by its driver, without one by its class; null when neither is known.
static const UsbKind *find_kind(const std::string &driver, const std::string &code) {
    for (const UsbKind &known : kUsbDrivers) {
        if (driver == known.code)
            return &known;
    }
    // What a driver of another kind serves is the maker's own, but no modem.
    if (!driver.empty() && code.compare(0, 2, "ff") == 0)
        return nullptr;
    for (const UsbKind &known : kUsbClasses) {
        if (fits_code(code, known.code))
            return &known;
    }
    return nullptr;
}

// Name of the kernel's driver of an interface; empty when it has none, or one for programs ("usbfs").
static std::string read_driver(const std::string &directory, const std::string &interface) {
    char target[256];
    const std::string link = directory + "/" + interface + "/driver";
    const ssize_t length = readlink(link.c_str(), target, sizeof(target));
    const std::string path(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    const std::string name = path.substr(path.rfind('/') + 1);
    return name == "usbfs" ? "" : name;
}

// Class, subclass and protocol of a device or interface; what is not told is "00".
static std::string read_code(const std::string &entry, const std::string &prefix) {
    std::string code;
    for (const char *attribute : {"Class", "SubClass", "Protocol"}) {
        const std::string digits = read_attribute(entry, (prefix + attribute).c_str());
        code += digits.size() == 2 ? digits : "00";
    }
    return code;
}

// Names in the device directory.
static std::vector<std::string> list_entries(const std::string &directory) {
    std::vector<std::string> names;
    const DirPtr opened(opendir(directory.c_str()));
    if (!opened)
        telemetry_memory_refused_by_errno();
    while (const dirent *entry = opened != nullptr ? readdir(opened.get()) : nullptr) {
        if (entry->d_name[0] == '.')
            continue;
        if (names.size() == kMaxUsbEntries) {
            LOG_ERROR("%s has more than %zu entries, the rest is left out", kUsbDeviceDir, kMaxUsbEntries);
            break;
        }
        names.emplace_back(entry->d_name);
    }
    return names;
}

// "usb1" is a root hub, "1-1" a device, "1-1:1.0" one of its interfaces. The first device by name that is no
// hub is reported.
static std::string find_usb_device(const std::vector<std::string> &entries) {
    std::string first;
    for (const std::string &name : entries) {
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

// A device whose interfaces are not listed is what its own class says.
static TelemetryUsbType find_usb_type(const std::string &directory, const std::vector<std::string> &entries,
                                      const std::string &device) {
    const UsbKind *best = nullptr;
    bool listed = false;
    for (const std::string &name : entries) {
        if (name.rfind(device + ":", 0) != 0)
            continue;
        listed = true;
        const UsbKind *kind = find_kind(read_driver(directory, name), read_code(name, "bInterface"));
        if (kind != nullptr && (best == nullptr || kind->rank > best->rank))
            best = kind;
    }
    if (!listed)
        best = find_kind("", read_code(device, "bDevice"));
    return best != nullptr ? best->type : TELEMETRY_USB_OTHER;
}

// After a record that was given up a change is still to be told, also when an answer to another node has
// taken note of it meanwhile.
static bool given_up, change_untold;

int collect_myself_usb_info(UsbInfoRecord *record) {
    if (record == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    *record = {};
    int enabled = -1;
    telemetry_read_flag("usb", "settings", "usb_enable", &enabled);
    record->usb_enable = enabled;
    record->config_is_change =
        telemetry_update_tmp_backup_config_by_telemetry_index(kUsbRows, 1) == 1 ? 1 : 0;
    change_untold = change_untold || (given_up && record->config_is_change != 0);
    const std::string directory = telemetry_path(kUsbDeviceDir);
    const std::vector<std::string> entries = list_entries(directory);
    const std::string device = find_usb_device(entries);
    if (device.empty())
        return 0;
    record->usb_type = find_usb_type(directory, entries, device);
    copy_usb_id(record->vendor_id, read_attribute(device, "idVendor"));
    copy_usb_id(record->product_id, read_attribute(device, "idProduct"));
    return 0;
}

// --- Every node ---

// Ids are there only with a device, the switch only where it is known.
static bool fill_entry(cJSON *entry, const UsbInfoRecord &record) {
    bool filled = record.usb_enable < 0 || cJSON_AddNumberToObject(entry, "ue", record.usb_enable) != nullptr;
    filled = cJSON_AddNumberToObject(entry, "cc", record.config_is_change) != nullptr &&
             cJSON_AddNumberToObject(entry, "ut", record.usb_type) != nullptr && filled;
    if (record.vendor_id[0] != '\0')
        filled = cJSON_AddStringToObject(entry, "vi", record.vendor_id) != nullptr && filled;
    if (record.product_id[0] != '\0')
        filled = cJSON_AddStringToObject(entry, "pi", record.product_id) != nullptr && filled;
    return filled;
}

// `missing` when the answer has no such member.
static int32_t read_flag(const cJSON *result, const char *key, int32_t missing) {
    int64_t flag = 0;
    if (!json_int64(result, key, &flag) || flag < 0)
        return missing;
    return flag != 0 ? 1 : 0;
}

static void apply_usb_result(const cJSON *result, void *user) {
    UsbInfoRecord record = {};
    record.usb_enable = read_flag(result, "usb_enable", -1);
    record.config_is_change = read_flag(result, "config_is_change", 0);
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
        telemetry_node_list_add_answer(static_cast<cJSON *>(user), result, std::move(entry));
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
        telemetry_attach_element(sorted.get(), JsonPtr(cJSON_CreateString(text.c_str())));
    return telemetry_collect_digest_changed("usb", "usb_info", sorted.get(), "md5 same, don't collect!") == 1;
}

static int collect_for_record(UsbInfoRecord *record) {
    TelemetryUciScope::on_put_back([] { given_up = true; });
    if (collect_myself_usb_info(record) != 0)
        return -1;
    if (change_untold)
        record->config_is_change = 1;
    if (record->config_is_change != 0)
        TelemetryUciScope::on_put_back([] { change_untold = true; });
    given_up = change_untold = false;
    return 0;
}

int collect_usb_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    JsonPtr list(cJSON_CreateArray());
    JsonPtr own(cJSON_CreateObject());
    UsbInfoRecord record = {};
    if (!list || !own || collect_for_record(&record) != 0 || !fill_entry(own.get(), record)) {
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
