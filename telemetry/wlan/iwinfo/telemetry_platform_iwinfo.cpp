#include "telemetry_platform_iwinfo.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "iwinfo_devices.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_utils.h"

static constexpr size_t kMaxSurveys = 32;

// The records' scale of a signal in dBm.
static constexpr int kSignalOffset = 92;
// The records' codes of a station's mode, oldest first as the other driver counts them: 3, 0, 1, 2, 6.
enum StationMode : uint32_t { MODE_HT = 0, MODE_VHT = 1, MODE_HE = 2, MODE_LEGACY = 3, MODE_EHT = 6 };

static bool is_missing(const void *argument, const char *operation) {
    if (argument == nullptr)
        LOG_ERROR("%s: invalid input!", operation);
    return argument == nullptr;
}

// --- Temperatures ---

static bool read_degrees(const char *path, double *degrees) {
    char text[32] = {};
    char *end = nullptr;
    if (telemetry_parse_file(path, text, sizeof(text)) != 0)
        return false;
    const long thousandths = strtol(text, &end, 10);
    if (end == text)
        return false;
    const long whole = thousandths / 1000; // as the records have it
    *degrees = static_cast<double>(whole);
    return true;
}

int wlan_get_device_temperature_iwinfo(const char *ifname, double *temperature) {
    if (is_missing(ifname, __func__) || is_missing(temperature, __func__))
        return 0;
    const int number = telemetry_text_to_int(ifname + strcspn(ifname, "0123456789"));
    const std::string directory = "/sys/class/ieee80211/phy" + std::to_string(number) + "/device/hwmon";
    const DirPtr sensors(opendir(telemetry_path(directory).c_str()));
    while (const dirent *entry = sensors != nullptr ? readdir(sensors.get()) : nullptr) {
        const std::string file = directory + "/" + entry->d_name + "/temp1_input";
        if (entry->d_name[0] != '.' && telemetry_file_exists(file.c_str()) &&
            read_degrees(file.c_str(), temperature))
            return 1;
    }
    LOG_MISSING("%s: no sensor of %.16s", __func__, ifname);
    return 0;
}

int wlan_get_cpu_temperature_iwinfo(double *temperature) {
    if (is_missing(temperature, __func__))
        return 0;
    if (read_degrees(kThermalZonePath, temperature))
        return 1;
    LOG_MISSING("open file %s failed", kThermalZonePath);
    *temperature = -1.0;
    return 0;
}

// --- Radios ---

// The first access point on a band; null, with a line, when there is none.
static const IwinfoDevice *ap_of_band(uint32_t band, const char *operation) {
    const IwinfoDevice *device = iwinfo_find_ap(static_cast<int>(band), -1);
    if (device == nullptr)
        LOG_MISSING("%s: no access point on band %u", operation, band);
    return device;
}

int wlan_get_backhaul_ap_channel_iwinfo(uint32_t band, uint32_t *channel) {
    if (is_missing(channel, __func__))
        return 0;
    const IwinfoDevice *device = ap_of_band(band, __func__);
    if (device == nullptr || device->channel <= 0)
        return 0;
    *channel = static_cast<uint32_t>(device->channel);
    return 1;
}

int wlan_get_wifi_bandwidth_iwinfo(uint32_t *bandwidth) {
    if (is_missing(bandwidth, __func__))
        return 0;
    const IwinfoDevice *device = ap_of_band(1, __func__);
    if (device == nullptr)
        return 0;
    // "HE80", "VHT160", "HT20"; "NOHT" is a plain channel.
    const char *mode = device->htmode.c_str();
    const int width =
        strcmp(mode, "NOHT") == 0 ? 20 : telemetry_text_to_int(mode + strcspn(mode, "0123456789"));
    for (const int known : {20, 40, 80, 160, 320}) {
        if (width == known) {
            *bandwidth = static_cast<uint32_t>(known);
            return 1;
        }
    }
    LOG_MISSING("%s: the width of %.16s is not known: %.16s", __func__, device->name.c_str(), mode);
    return 0;
}

struct SurveyLook {
    std::string ifname;
    double mhz; // of the channel that the times belong to
    double active;
    double busy;
    uint8_t percent;
};

static std::vector<SurveyLook> survey_looks;

void wlan_iwinfo_forget() {
    survey_looks.clear();
    iwinfo_forget_devices();
}

static SurveyLook *last_look(const char *ifname) {
    for (SurveyLook &look : survey_looks) {
        if (look.ifname == ifname)
            return &look;
    }
    if (survey_looks.size() == kMaxSurveys)
        survey_looks.erase(survey_looks.begin());
    survey_looks.push_back({ifname, 0, 0, 0, 0});
    return &survey_looks.back();
}

static double positive(const cJSON *entry, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(entry, key);
    return cJSON_IsNumber(item) && item->valuedouble > 0 ? item->valuedouble : 0;
}

static void take_survey(SurveyLook *look, double mhz, double active, double busy) {
    // Another channel has times of its own; a radio that was restarted counts from zero again.
    const bool restarted = mhz != look->mhz || active < look->active || busy < look->busy;
    const double passed = active - (restarted ? 0 : look->active);
    const double used = busy - (restarted ? 0 : look->busy);
    if (passed > 0)
        look->percent = static_cast<uint8_t>(std::clamp(used * 100 / passed, 0.0, 100.0));
    look->mhz = mhz;
    look->active = active;
    look->busy = busy;
}

int wlan_get_channel_util_iwinfo(const char *ifname, uint8_t *util, uint32_t, uint8_t) {
    if (is_missing(ifname, __func__) || is_missing(util, __func__))
        return 0;
    const IwinfoDevice *device = iwinfo_find_device(ifname);
    const double mhz = device != nullptr ? device->mhz : 0; // the next question may renew the list
    const JsonPtr results = device != nullptr ? iwinfo_ask(ifname, "survey") : nullptr;
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, results.get()) {
        const double active = positive(entry, "active_time");
        if (mhz <= 0 || positive(entry, "mhz") != mhz || active <= 0 ||
            !cJSON_IsNumber(cJSON_GetObjectItemCaseSensitive(entry, "busy_time")))
            continue;
        SurveyLook *look = last_look(ifname);
        take_survey(look, mhz, active, positive(entry, "busy_time"));
        *util = look->percent;
        return 1;
    }
    LOG_MISSING("%s: no survey of %.16s", __func__, ifname);
    return 0;
}

// --- Interfaces ---

static int put_name(const IwinfoDevice *device, char *name, int32_t size) {
    copy_text(name, static_cast<size_t>(size), device != nullptr ? device->name.c_str() : "");
    return 1;
}

int wlan_get_sta_if_name_iwinfo(int32_t band, char *name, int32_t size) {
    if (is_missing(name, __func__) || size <= 0)
        return 0;
    const IwinfoDevice *device = iwinfo_find_station(band);
    if (device == nullptr) {
        LOG_MISSING("%s: no uplink on band %d", __func__, band);
        return 0;
    }
    return put_name(device, name, size);
}

int wlan_get_band_if_name_iwinfo(int32_t band, int32_t network_type, char *name, int32_t size) {
    if (is_missing(name, __func__) || size <= 0 || network_type < 0)
        return 0;
    if (!iwinfo_is_there())
        return 0;
    return put_name(iwinfo_find_ap(band, network_type), name, size);
}

// --- Stations ---

// kbit/s to the records' Mbit/s.
static uint32_t rate_of(const cJSON *station, const char *direction) {
    const double rate = positive(cJSON_GetObjectItemCaseSensitive(station, direction), "rate");
    return static_cast<uint32_t>(std::min(rate / 1000, 4e9));
}

static uint32_t mode_of(const cJSON *station) {
    static constexpr struct {
        const char *key;
        uint32_t code;
    } kModes[] = {{"eht", MODE_EHT}, {"he", MODE_HE}, {"vht", MODE_VHT}, {"ht", MODE_HT}};
    for (const auto &mode : kModes) {
        for (const char *direction : {"tx", "rx"}) {
            const cJSON *rate = cJSON_GetObjectItemCaseSensitive(station, direction);
            if (cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(rate, mode.key)))
                return mode.code;
        }
    }
    return MODE_LEGACY;
}

static bool mac_of(const cJSON *station, uint8_t (&mac)[6]) {
    const char *text = json_text(station, "mac");
    return text != nullptr && strlen(text) == 17 &&
           sscanf(text, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4],
                  &mac[5]) == 6;
}

int wlan_get_uplink_rate_iwinfo(const char *ifname, BackhaulStats *stats, uint8_t *rssi) {
    if (is_missing(ifname, __func__) || is_missing(stats, __func__) || is_missing(rssi, __func__))
        return 0;
    const JsonPtr results = iwinfo_ask(ifname, "assoclist");
    const cJSON *parent = cJSON_GetArrayItem(results.get(), 0);
    uint8_t mac[6];
    int64_t signal = 0;
    if (!mac_of(parent, mac)) {
        LOG_MISSING("%s: %.16s has no parent", __func__, ifname);
        return 0;
    }
    memcpy(stats->mac, mac, sizeof(stats->mac));
    stats->tx = static_cast<uint16_t>(std::min<uint32_t>(rate_of(parent, "tx"), UINT16_MAX));
    stats->rx = static_cast<uint16_t>(std::min<uint32_t>(rate_of(parent, "rx"), UINT16_MAX));
    // 0 is the service's word for unknown.
    if (json_int64(parent, "signal", &signal) && signal >= INT8_MIN && signal < 0)
        *rssi = static_cast<uint8_t>(signal + kSignalOffset);
    else
        LOG_MISSING("%s: the signal of %.16s is not known", __func__, ifname);
    return 1;
}

static int add_stations(const char *ifname, ClientStaList *list, uint32_t *count) {
    const JsonPtr results = iwinfo_ask(ifname, "assoclist");
    if (results == nullptr)
        return 0;
    const cJSON *station = nullptr;
    cJSON_ArrayForEach(station, results.get()) {
        uint8_t mac[6];
        if (!mac_of(station, mac))
            continue;
        if (list->stations == nullptr || *count >= list->capacity) {
            LOG_ERROR("%s has more stations than the %u that are kept", ifname, list->capacity);
            break;
        }
        ClientStaInfo &entry = list->stations[(*count)++];
        memcpy(entry.mac, mac, sizeof(entry.mac));
        entry.txrate = rate_of(station, "tx");
        entry.rxrate = rate_of(station, "rx");
        entry.phymode = mode_of(station);
    }
    return 1;
}

int wlan_get_band_client_sta_info_iwinfo(const char *ifname, ClientStaList *list, uint32_t *count) {
    if (is_missing(ifname, __func__) || is_missing(list, __func__) || is_missing(count, __func__))
        return 0;
    if (*ifname == '\0')
        return 1;
    // The caller asks for one interface a band and network.
    int result = 0;
    for (const std::string &name : iwinfo_aps_like(ifname))
        result |= add_stations(name.c_str(), list, count);
    return result;
}

const WlanPlatformOps wlan_platform_ops_iwinfo = {
    .get_device_temperature = wlan_get_device_temperature_iwinfo,
    .get_cpu_temperature = wlan_get_cpu_temperature_iwinfo,
    .get_backhaul_ap_channel = wlan_get_backhaul_ap_channel_iwinfo,
    .get_uplink_rate = wlan_get_uplink_rate_iwinfo,
    .get_channel_util = wlan_get_channel_util_iwinfo,
    .get_sta_if_name = wlan_get_sta_if_name_iwinfo,
    .get_band_if_name = wlan_get_band_if_name_iwinfo,
    .get_wifi_bandwidth = wlan_get_wifi_bandwidth_iwinfo,
    .reserved = nullptr,
    .get_band_client_sta_info = wlan_get_band_client_sta_info_iwinfo,
};
