// "wireless_host_info", "wireless_guest_info", "wireless_iot_info": a network's settings in each band, when
// they changed.
#include "collectors.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "collector_patterns.h"
#include "wlan_platform.h"
#include "telemetry_log.h"
#include "telemetry_repeat.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

static constexpr int kValueSize = 128;

// One setting of a network: read from an option, or by a getter, then rewritten by a converter.
struct WirelessOption {
    const char *key;
    const char *package;
    const char *section;
    const char *option;
    int value_type;
    int (*getter)(const char *ctype, char *buffer, int size);
    int (*converter)(char *text, int size);
};

struct WirelessBand {
    const char *ctype;
    const WirelessOption *options;
    int option_count;
};

// --- Getters: the value as text; 0 on success ---

// 1 when the section and its band are switched on; a band without its own switch is `band_default`.
static int get_band_enable(const char *package, const char *section, const char *band_option,
                           int band_default) {
    char value[kValueSize] = {};
    if (telemetry_get_uci_value(package, section, "enable", value, sizeof(value), TELEMETRY_UCI_SYSTEM) !=
        0) {
        LOG_DEBUG("telemetry_get_uci_value error");
        return 0;
    }
    if (strcmp(value, "1") != 0)
        return 0;
    if (telemetry_get_uci_value(package, section, band_option, value, sizeof(value), TELEMETRY_UCI_SYSTEM) !=
        0)
        return band_default;
    return strcmp(value, "1") == 0 ? 1 : 0;
}

static int put_number(char *buffer, int size, int value) {
    if (buffer == nullptr || size <= 0) {
        LOG_ERROR("invalid input!");
        return -1;
    }
    snprintf(buffer, static_cast<size_t>(size), "%d", value);
    return 0;
}

static int get_band_enable_2g_host(const char *, char *buffer, int size) {
    return put_number(buffer, size, get_band_enable("wifi", "ap", "enable_2g", 1));
}

static int get_band_enable_5g_host(const char *, char *buffer, int size) {
    return put_number(buffer, size, get_band_enable("wifi", "ap", "enable_5g", 1));
}

static int get_band_enable_2g_guest(const char *, char *buffer, int size) {
    return put_number(buffer, size, get_band_enable("wifi", "guest", "enable_2g", 1));
}

static int get_band_enable_5g_guest(const char *, char *buffer, int size) {
    return put_number(buffer, size, get_band_enable("wifi", "guest", "enable_5g", 1));
}

static int get_band_enable_2g_iot(const char *, char *buffer, int size) {
    return put_number(buffer, size, get_band_enable("iot_wifi", "iot", "enable_2g", 1));
}

static int get_band_enable_5g_iot(const char *, char *buffer, int size) {
    return put_number(buffer, size, get_band_enable("iot_wifi", "iot", "enable_5g", 1));
}

static int get_bandwidth_5g_host(const char *, char *buffer, int size) {
    uint32_t bandwidth = 0;
    if (wlan_get_wifi_bandwidth(&bandwidth) != 1) {
        LOG_ERROR("get bandwidth failed!");
        bandwidth = 0;
    }
    return put_number(buffer, size, static_cast<int>(bandwidth));
}

// Both bands carry the network's one name.
static int read_host_ssid(char (&ssid)[kValueSize]) {
    return telemetry_get_uci_value("wifi", "ap", "ssid", ssid, sizeof(ssid), TELEMETRY_UCI_SYSTEM);
}

static int get_ssid_len_host_2g(const char *, char *buffer, int size) {
    char ssid[kValueSize] = {};
    if (read_host_ssid(ssid) != 0) {
        LOG_MISSING("get ssid len failed!");
        return -1;
    }
    return put_number(buffer, size, static_cast<int>(strlen(ssid)));
}

static int get_ssid_type_host_2g(const char *, char *buffer, int size) {
    char ssid[kValueSize] = {};
    if (read_host_ssid(ssid) != 0) {
        LOG_MISSING("get ssid type failed!");
        return -1;
    }
    int classes = 0;
    for (const char *c = ssid; *c != '\0'; c++) {
        if (*c >= '0' && *c <= '9')
            classes |= 1;
        else if ((*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z'))
            classes |= 2;
        else
            classes |= 4;
    }
    return put_number(buffer, size, classes);
}

// --- Converters: rewrite the text in place; 0 on success ---

static int convert_band_width(char *text, int size) {
    if (text == nullptr || size <= 0) {
        LOG_ERROR("invalid input!");
        return -1;
    }
    if (strncmp(text, "HT", 2) != 0)
        return 0;
    char *end = nullptr;
    strtol(text + 2, &end, 10);
    if (end == text + 2)
        return 0;
    return put_number(text, size, telemetry_text_to_int(text + 2));
}

static int convert_encry_type(char *text, int size) {
    if (text == nullptr || size <= 0) {
        LOG_ERROR("invalid input!");
        return -1;
    }
    static constexpr const char *kTypes[] = {"none", "wpa2", "wpa2+wpa", "wpa3", "wpa3+wpa2"};
    int code = 0;
    for (const char *type : kTypes) {
        if (strcmp(text, type) == 0)
            return put_number(text, size, code);
        code++;
    }
    return put_number(text, size, -1);
}

// --- The networks ---

static constexpr WirelessOption kHost2g[] = {
    {"en", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_band_enable_2g_host, nullptr},
    {"he", "wifi", "ap", "hidessid", TELEMETRY_VALUE_INT, nullptr, nullptr},
    {"cn", "wifi", "radio_2g", "channel", TELEMETRY_VALUE_INT, nullptr, nullptr},
    {"bw", "wifi", "radio_2g", "htmode", TELEMETRY_VALUE_INT, nullptr, convert_band_width},
    {"em", "wifi", "ap", "enc_type", TELEMETRY_VALUE_INT, nullptr, convert_encry_type},
    {"sl", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_ssid_len_host_2g, nullptr},
    {"st", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_ssid_type_host_2g, nullptr},
};
static constexpr WirelessOption kHost5g[] = {
    {"en", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_band_enable_5g_host, nullptr},
    {"he", "wifi", "ap", "hidessid", TELEMETRY_VALUE_INT, nullptr, nullptr},
    {"cn", "wifi", "radio_5g", "channel", TELEMETRY_VALUE_INT, nullptr, nullptr},
    {"bw", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_bandwidth_5g_host, nullptr},
    {"em", "wifi", "ap", "enc_type", TELEMETRY_VALUE_INT, nullptr, convert_encry_type},
    {"sl", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_ssid_len_host_2g, nullptr},
    {"st", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_ssid_type_host_2g, nullptr},
};
static constexpr WirelessOption kGuest2g[] = {
    {"en", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_band_enable_2g_guest, nullptr},
    {"em", "wifi", "guest", "enc_type", TELEMETRY_VALUE_INT, nullptr, convert_encry_type},
    {"iso", "wifi", "guest", "host_isolation", TELEMETRY_VALUE_INT, nullptr, nullptr},
};
static constexpr WirelessOption kGuest5g[] = {
    {"en", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_band_enable_5g_guest, nullptr},
    {"em", "wifi", "guest", "enc_type", TELEMETRY_VALUE_INT, nullptr, convert_encry_type},
    {"iso", "wifi", "guest", "host_isolation", TELEMETRY_VALUE_INT, nullptr, nullptr},
};
static constexpr WirelessOption kIot2g[] = {
    {"en", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_band_enable_2g_iot, nullptr},
    {"em", "iot_wifi", "iot", "enc_type", TELEMETRY_VALUE_INT, nullptr, convert_encry_type},
};
static constexpr WirelessOption kIot5g[] = {
    {"en", nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT, get_band_enable_5g_iot, nullptr},
    {"em", "iot_wifi", "iot", "enc_type", TELEMETRY_VALUE_INT, nullptr, convert_encry_type},
};

static constexpr int kBandCount = 2;
// The place of a band here is its number for the driver.
static constexpr const char *kBandTypes[kBandCount] = {"2.4G", "5G"};

template <size_t Rows2g, size_t Rows5g>
static constexpr std::array<WirelessBand, kBandCount> make_bands(const WirelessOption (&rows_2g)[Rows2g],
                                                                 const WirelessOption (&rows_5g)[Rows5g]) {
    return {{{kBandTypes[0], rows_2g, static_cast<int>(Rows2g)},
             {kBandTypes[1], rows_5g, static_cast<int>(Rows5g)}}};
}

static constexpr auto kHostBands = make_bands(kHost2g, kHost5g);
static constexpr auto kGuestBands = make_bands(kGuest2g, kGuest5g);
static constexpr auto kIotBands = make_bands(kIot2g, kIot5g);

// --- Records ---

static bool band_is_enabled(const WirelessBand &band) {
    for (int i = 0; i < band.option_count; i++) {
        const WirelessOption &row = band.options[i];
        if (strcmp(row.key, "en") != 0 || row.getter == nullptr)
            continue;
        char value[kValueSize] = {};
        return row.getter(band.ctype, value, sizeof(value)) == 0 && strcmp(value, "1") == 0;
    }
    return false;
}

// The row's value as text, converted; false when the row is to be left out.
static bool read_row(const WirelessBand &band, const WirelessOption &row, char (&value)[kValueSize]) {
    if (row.getter != nullptr) {
        if (row.getter(band.ctype, value, sizeof(value)) != 0) {
            LOG_MISSING("get %s failed", row.key);
            return false;
        }
    } else if (telemetry_get_uci_value(row.package, row.section, row.option, value, sizeof(value),
                                       TELEMETRY_UCI_SYSTEM) != 0) {
        LOG_MISSING("uci read %s %s %s failed", row.package, row.section, row.option);
        return false;
    }
    if (row.converter != nullptr && row.converter(value, kValueSize - 1) != 0) {
        LOG_ERROR("convert error!");
        return false;
    }
    return true;
}

static JsonPtr _telemetry_collect_wireless_info_per_band(const WirelessBand &band, uint32_t *count) {
    JsonPtr object(cJSON_CreateObject());
    if (object == nullptr) {
        LOG_ERROR("create json object failed!");
        return nullptr;
    }
    cJSON_AddStringToObject(object.get(), "ctype", band.ctype);
    const bool enabled = band_is_enabled(band);
    cJSON_AddNumberToObject(object.get(), "en", enabled ? 1 : 0);
    *count += 2;
    if (!enabled)
        return object;
    for (int i = 0; i < band.option_count; i++) {
        const WirelessOption &row = band.options[i];
        char value[kValueSize] = {};
        if (strcmp(row.key, "en") == 0 || !read_row(band, row, value))
            continue;
        telemetry_add_value_to_cJSON_object(object.get(), row.key, value, row.value_type);
        *count += 1;
    }
    return object;
}

static int telemetry_collect_network_info(cJSON *array, uint32_t *count, const WirelessBand *bands,
                                          int band_count) {
    for (int i = 0; i < band_count; i++) {
        JsonPtr object = _telemetry_collect_wireless_info_per_band(bands[i], count);
        if (object == nullptr || !telemetry_attach_element(array, std::move(object)))
            return -1;
    }
    return 0;
}

// Adds the channel in use to every enabled band. It comes after the digest: a radio that changes its channel
// by itself is no change of a setting.
static void telemetry_add_current_channel(cJSON *array, uint32_t *count) {
    cJSON *band = nullptr;
    cJSON_ArrayForEach(band, array) {
        const cJSON *enabled = cJSON_GetObjectItemCaseSensitive(band, "en");
        const char *ctype = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(band, "ctype"));
        if (!cJSON_IsNumber(enabled) || enabled->valueint != 1 || ctype == nullptr)
            continue;
        for (uint32_t number = 0; number < kBandCount; number++) {
            uint32_t channel = 0;
            if (strcmp(ctype, kBandTypes[number]) != 0 || wlan_get_backhaul_ap_channel(number, &channel) != 1)
                continue;
            cJSON_AddNumberToObject(band, "acn", channel);
            *count += 1;
        }
    }
}

static int collect_wireless_info_by_wireless_table(cJSON *payload, uint32_t *count, const char *module,
                                                   const WirelessBand *bands, int band_count) {
    if (payload == nullptr || count == nullptr) {
        LOG_ERROR("invalid input");
        return -1;
    }
    JsonPtr array(cJSON_CreateArray());
    if (array == nullptr) {
        LOG_ERROR("cJSON_CreateArray failed");
        return -1;
    }
    uint32_t items = 0;
    if (telemetry_collect_network_info(array.get(), &items, bands, band_count) != 0) {
        LOG_ERROR("collect host network info failed!");
        return -1;
    }
    if (telemetry_collect_digest_changed("wireless", module, array.get(), "wireless info dont change!") == 0)
        return -1;
    telemetry_add_current_channel(array.get(), &items);
    if (!telemetry_attach_member(payload, "detail", std::move(array)))
        return -1;
    *count += items;
    return 0;
}

int collect_wireless_host_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    return collect_wireless_info_by_wireless_table(payload, count, "wireless_host_info", kHostBands.data(),
                                                   kBandCount);
}

int collect_wireless_guest_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    return collect_wireless_info_by_wireless_table(payload, count, "wireless_guest_info", kGuestBands.data(),
                                                   kBandCount);
}

int collect_wireless_iot_info(TelemetryCtx *, cJSON *payload, uint32_t *count) {
    return collect_wireless_info_by_wireless_table(payload, count, "wireless_iot_info", kIotBands.data(),
                                                   kBandCount);
}
