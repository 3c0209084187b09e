// "system_info": every node's load, memory, temperatures, connections and low-power figures.
#include "system_info.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <unistd.h>
#include <utility>

#include "collector_patterns.h"
#include "collectors.h"
#include "telemetry_bus_call.h"
#include "telemetry_handles.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_snapshot.h"
#include "telemetry_transfer.h"
#include "telemetry_uci.h"
#include "telemetry_utils.h"

static constexpr int kLineSize = 512;
static constexpr unsigned kCpuSampleSeconds = 3;
static constexpr int kLowpowerTimeoutMs = 1000;

// --- CPU ---

// Ticks of all processors: beyond 32 bits after months of uptime.
struct CpuSample {
    uint64_t total;
    int64_t busy;
};

static int _telemetry_system_info_get_cpu_usage_info(CpuSample *sample) {
    const FilePtr file(fopen(telemetry_path(kProcStatPath).c_str(), "r"));
    if (!file) {
        telemetry_memory_refused_by_errno();
        LOG_ERROR("error: open file %s failed", kProcStatPath);
        return -1;
    }
    char line[kLineSize];
    if (fgets(line, sizeof(line), file.get()) == nullptr) {
        LOG_ERROR("fget failed!");
        return -1;
    }
    uint64_t counters[10] = {};
    uint64_t total = 0;
    const char *place = line + strcspn(line, " ");
    for (uint64_t &counter : counters) {
        char *end = nullptr;
        counter = strtoull(place, &end, 10);
        if (end == place)
            return -1;
        place = end;
        total += counter;
    }
    *sample = {total, std::max<int64_t>(static_cast<int64_t>(total - counters[3] - counters[4]), 0)};
    return 0;
}

int telemetry_system_info_get_cpu_info() {
    CpuSample first = {};
    CpuSample second = {};
    if (_telemetry_system_info_get_cpu_usage_info(&first) != 0) {
        LOG_ERROR("get cpu info failed!");
        return -1;
    }
    // A signal cuts a sleep short.
    for (unsigned left = kCpuSampleSeconds; left > 0;)
        left = sleep(left);
    if (_telemetry_system_info_get_cpu_usage_info(&second) != 0) {
        LOG_ERROR("get cpu info failed!");
        return -1;
    }
    const int64_t total = std::max<int64_t>(static_cast<int64_t>(second.total - first.total), 1);
    const int64_t busy = std::clamp<int64_t>(second.busy - first.busy, 0, INT64_MAX / 100);
    return static_cast<int>(busy * 100 / total);
}

// --- Memory ---

enum MemFigure { MEM_TOTAL, MEM_FREE, MEM_BUFFERS, MEM_CACHED, MEM_SWAP_CACHED, MEM_FIGURES };
static constexpr const char *kMemFigureNames[MEM_FIGURES] = {"MemTotal", "MemFree", "Buffers", "Cached",
                                                             "SwapCached"};

int telemetry_system_info_get_mem_info(int kind) {
    int figures[MEM_FIGURES];
    for (int &figure : figures)
        figure = -1;
    const FilePtr file(fopen(telemetry_path(kProcMeminfoPath).c_str(), "r"));
    if (!file)
        telemetry_memory_refused_by_errno();
    char line[kLineSize];
    while (file && fgets(line, sizeof(line), file.get()) != nullptr) {
        for (int i = 0; i < MEM_FIGURES; ++i) {
            // Each figure is on the first line that holds its word.
            if (figures[i] < 0 && strstr(line, kMemFigureNames[i]) != nullptr)
                sscanf(line, "%*s %d kB", &figures[i]);
        }
        if (kind == 0 && figures[MEM_TOTAL] >= 0)
            return figures[MEM_TOTAL];
        if (kind == 2 && figures[MEM_FREE] >= 0)
            return figures[MEM_FREE];
    }
    const bool complete = *std::min_element(std::begin(figures), std::end(figures)) >= 0;
    if (kind != 1 || !complete || figures[MEM_TOTAL] == 0) {
        LOG_ERROR("invalid read meminfo");
        return -1;
    }
    const int64_t used = static_cast<int64_t>(figures[MEM_TOTAL]) - figures[MEM_FREE] - figures[MEM_BUFFERS] -
                         figures[MEM_CACHED] - figures[MEM_SWAP_CACHED];
    return static_cast<int>(used * 100 / figures[MEM_TOTAL]);
}

// --- Figures of this node ---

// The number in a small file, which then replaces *number. A text in its place ("<unknown>" is what the
// kernel says of a frequency that it cannot measure) is as good as no file.
static bool read_number_file(const char *path, int *number) {
    char text[128];
    if (telemetry_parse_file(path, text, sizeof(text)) != 0)
        return false;
    char *end = nullptr;
    const long long value = strtoll(text, &end, 10);
    if (end == text)
        return false;
    *number = static_cast<int>(value);
    return true;
}

static void read_wifi_temperature(const char *name, double *temperature) {
    if (wlan_get_device_temperature(name, temperature) != 1)
        *temperature = -1.0;
}

static void read_temperatures(SystemInfoRecord *record) {
    read_wifi_temperature("wifi0", &record->wifi0_temp);
    read_wifi_temperature("wifi1", &record->wifi1_temp);
    read_wifi_temperature("wifi2", &record->wifi2_temp);
    double cpu = -1.0;
    wlan_get_cpu_temperature(&cpu);
    record->cpu_temp = static_cast<int32_t>(cpu);
}

static void read_work_mode(SystemInfoRecord *record);

static void read_cpu_usage(SystemInfoRecord *record) {
    record->cpu_usage = telemetry_system_info_get_cpu_info();
}

static void read_cpu_freq(SystemInfoRecord *record) {
    int kilohertz = 0;
    if (read_number_file(kCpuinfoFreqPath, &kilohertz) || read_number_file(kScalingFreqPath, &kilohertz))
        record->cpu_freq = kilohertz;
}

static void read_mem_total(SystemInfoRecord *record) {
    record->mem_total = telemetry_system_info_get_mem_info(0);
}

static void read_mem_usage(SystemInfoRecord *record) {
    record->mem_usage = telemetry_system_info_get_mem_info(1);
}

static void read_mem_free(SystemInfoRecord *record) {
    record->mem_free = telemetry_system_info_get_mem_info(2);
}

static void read_nat_num(SystemInfoRecord *record) {
    if (!read_number_file(kConntrackCountPath, &record->nat_num))
        LOG_MISSING("open file %s failed", kConntrackCountPath);
}

// One member of a node's entry: key, option it is read from (work mode only), how the figure is measured
// here, and its type code. The low-power pair has a source of its own.
struct SystemInfoItem {
    const char *key;
    const char *package;
    const char *section;
    const char *option;
    void (*read)(SystemInfoRecord *record);
    int value_type;
};

static constexpr SystemInfoItem kItems[] = {
    {"wm", "sysmode", "sysmode", "mode", read_work_mode, TELEMETRY_VALUE_STRING},
    {"cu", nullptr, nullptr, nullptr, read_cpu_usage, TELEMETRY_VALUE_DOUBLE},
    {"cfq", nullptr, nullptr, nullptr, read_cpu_freq, TELEMETRY_VALUE_INT},
    {"mt", nullptr, nullptr, nullptr, read_mem_total, TELEMETRY_VALUE_DOUBLE},
    {"mu", nullptr, nullptr, nullptr, read_mem_usage, TELEMETRY_VALUE_DOUBLE},
    {"mf", nullptr, nullptr, nullptr, read_mem_free, TELEMETRY_VALUE_DOUBLE},
    {"tem", nullptr, nullptr, nullptr, read_temperatures, TELEMETRY_VALUE_DOUBLE},
    {"natn", nullptr, nullptr, nullptr, read_nat_num, TELEMETRY_VALUE_INT},
    {"lat", nullptr, nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT},
    {"lad", nullptr, nullptr, nullptr, nullptr, TELEMETRY_VALUE_INT},
};

static void read_work_mode(SystemInfoRecord *record) {
    const SystemInfoItem &item = kItems[0];
    telemetry_get_uci_value(item.package, item.section, item.option, record->work_mode,
                            sizeof(record->work_mode), TELEMETRY_UCI_SYSTEM);
}

int collect_data_for_system_info(SystemInfoRecord *record) {
    if (record == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    for (const SystemInfoItem &item : kItems) {
        if (item.read != nullptr)
            item.read(record);
    }
    return 0;
}

// --- Low power ---

enum { LOWPOWER_RES, LOWPOWER_TIME, LOWPOWER_DURATION, LOWPOWER_COUNT };
static const blobmsg_policy kLowpowerPolicy[LOWPOWER_COUNT] = {
    {"res", BLOBMSG_TYPE_STRING},
    {"associate_time", BLOBMSG_TYPE_INT32},
    {"associate_duration", BLOBMSG_TYPE_INT32},
};

namespace {
struct LowpowerReply {
    SystemInfoRecord *record;
    int kept;
};
} // namespace

static void handel_lowpower_cb(blob_attr *message, void *user) {
    auto *reply = static_cast<LowpowerReply *>(user);
    blob_attr *tb[LOWPOWER_COUNT] = {};
    if (message == nullptr || blobmsg_parse(kLowpowerPolicy, LOWPOWER_COUNT, tb, blobmsg_data(message),
                                            static_cast<unsigned>(blobmsg_data_len(message))) != 0) {
        LOG_ERROR("handel_lowpower_cb blobmsg_parse error!");
        return;
    }
    if (tb[LOWPOWER_RES] == nullptr || strcmp(blobmsg_get_string(tb[LOWPOWER_RES]), "success") != 0)
        return;
    SystemInfoRecord *record = reply->record;
    if (tb[LOWPOWER_TIME] != nullptr)
        record->lowpower_associate_time = static_cast<int32_t>(blobmsg_get_u32(tb[LOWPOWER_TIME]));
    if (tb[LOWPOWER_DURATION] != nullptr)
        record->lowpower_associate_duration = static_cast<int32_t>(blobmsg_get_u32(tb[LOWPOWER_DURATION]));
    LOG_DEBUG("get associate_time: %i, associate_duration: %i", record->lowpower_associate_time,
              record->lowpower_associate_duration);
    reply->kept = 1;
}

int collect_data_for_lowpower_info(SystemInfoRecord *record) {
    if (record == nullptr) {
        LOG_ERROR("param error");
        return 0;
    }
    LowpowerReply reply = {record, 0};
    const TelemetryBusError error =
        telemetry_bus_call(telemetry_bus_default_socket(), "low_power", "telemetry_get", nullptr,
                           kLowpowerTimeoutMs, handel_lowpower_cb, &reply);
    if (error == TELEMETRY_BUS_NO_OBJECT)
        LOG_MISSING("ubus call lowpower error!");
    else if (error != TELEMETRY_BUS_OK)
        LOG_ERROR("ubus call lowpower error!");
    return reply.kept;
}

// --- The satellites' figures ---

struct SatelliteFigure {
    const char *key;
    double SystemInfoRecord::*field;
};

static constexpr SatelliteFigure kSatelliteFigures[] = {
    {"cpu_usage", &SystemInfoRecord::cpu_usage},   {"cpu_freq", &SystemInfoRecord::cpu_freq},
    {"mem_total", &SystemInfoRecord::mem_total},   {"mem_usage", &SystemInfoRecord::mem_usage},
    {"mem_free", &SystemInfoRecord::mem_free},     {"wifi0_temp", &SystemInfoRecord::wifi0_temp},
    {"wifi1_temp", &SystemInfoRecord::wifi1_temp}, {"wifi2_temp", &SystemInfoRecord::wifi2_temp},
};

static void apply_satellite_lowpower(const cJSON *result, SystemInfoRecord *record) {
    const cJSON *lowpower = cJSON_GetObjectItemCaseSensitive(result, "lowpower");
    const char *res = json_text(lowpower, "res");
    if (res == nullptr) {
        LOG_ERROR("re_low_power info err");
        return;
    }
    if (strcmp(res, "success") != 0) {
        LOG_ERROR("re_low_power info res not success");
        return;
    }
    json_number(lowpower, "associate_time", &record->lowpower_associate_time);
    json_number(lowpower, "associate_duration", &record->lowpower_associate_duration);
}

void parseSystemInfoMsg(const cJSON *result, SystemInfoRecord *records, int count) {
    if (result == nullptr || records == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    const char *sender = json_text(result, "mac");
    char mac[kMacTextSize] = {};
    if (sender == nullptr || mac_to_upper_short_line(mac, sender) != 0 || mac[0] == '\0')
        return;
    SystemInfoRecord *record = nullptr;
    for (int i = 0; i < count && record == nullptr; ++i) {
        if (strncmp(records[i].mac, mac, strlen(mac)) == 0)
            record = &records[i];
    }
    if (record == nullptr)
        return;
    const char *mode = json_text(result, "sys_mode");
    if (mode != nullptr)
        copy_text(record->work_mode, mode);
    for (const SatelliteFigure &figure : kSatelliteFigures) {
        const cJSON *item = cJSON_GetObjectItemCaseSensitive(result, figure.key);
        if (cJSON_IsNumber(item))
            record->*figure.field = item->valuedouble;
    }
    json_number(result, "cpu_temp", &record->cpu_temp);
    json_number(result, "nat_num", &record->nat_num);
    apply_satellite_lowpower(result, record);
}

static void apply_system_result(const cJSON *result, void *user) {
    const auto *list = static_cast<const SystemInfoList *>(user);
    if (list->count == 0) {
        LOG_ERROR("vela num is 0");
        return;
    }
    parseSystemInfoMsg(result, list->records, list->count);
}

void handle_ubus_call_from_re_system_info(blob_attr *message, void *user) {
    if (user == nullptr) {
        LOG_ERROR("param error");
        return;
    }
    telemetry_transfer_handle_reply(message, apply_system_result, user);
}

// --- The record ---

static bool add_temperatures(cJSON *entry, const SystemInfoRecord *record) {
    cJSON *temperatures = cJSON_AddObjectToObject(entry, "tem");
    if (temperatures == nullptr)
        return false;
    cJSON_AddNumberToObject(temperatures, "w0", record->wifi0_temp);
    cJSON_AddNumberToObject(temperatures, "w1", record->wifi1_temp);
    cJSON_AddNumberToObject(temperatures, "w2", record->wifi2_temp);
    cJSON_AddNumberToObject(temperatures, "cpu", record->cpu_temp);
    return true;
}

static JsonPtr build_node_entry(const SystemInfoRecord *record) {
    JsonPtr entry(cJSON_CreateObject());
    if (!entry) {
        LOG_ERROR("cJSON_CreateObject failed");
        return nullptr;
    }
    if (telemetry_add_mac_md5_to_cJSON_object(entry.get(), "dm", record->mac) != 0) {
        LOG_ERROR("cJSON_Add Mac Md5 failed");
        return nullptr;
    }
    cJSON_AddStringToObject(entry.get(), "wm", record->work_mode);
    cJSON_AddNumberToObject(entry.get(), "cu", record->cpu_usage);
    cJSON_AddNumberToObject(entry.get(), "cfq", record->cpu_freq);
    cJSON_AddNumberToObject(entry.get(), "mt", record->mem_total);
    cJSON_AddNumberToObject(entry.get(), "mu", record->mem_usage);
    cJSON_AddNumberToObject(entry.get(), "mf", record->mem_free);
    cJSON_AddNumberToObject(entry.get(), "natn", record->nat_num);
    cJSON_AddNumberToObject(entry.get(), "lat", record->lowpower_associate_time);
    cJSON_AddNumberToObject(entry.get(), "lad", record->lowpower_associate_duration);
    if (!add_temperatures(entry.get(), record)) {
        LOG_ERROR("cJSON_CreateObject failed");
        return nullptr;
    }
    return entry;
}

static int telemetry_add_collected_system_info(const SystemInfoRecord *records, int count, cJSON *payload,
                                               uint32_t *items) {
    if (records == nullptr || count < 1) {
        LOG_ERROR("no system info!");
        return -1;
    }
    JsonPtr list(cJSON_CreateArray());
    if (!list) {
        LOG_ERROR("cJSON_CreateArray failed");
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        JsonPtr entry = build_node_entry(&records[i]);
        if (!entry)
            return -1;
        cJSON_AddItemToArray(list.get(), entry.release());
        ++*items;
    }
    return telemetry_attach_member(payload, "sl", std::move(list)) ? 0 : -1;
}

// The record of this node: its own address's, or the main node's, which is where a list that does not know
// the firmware tool's address has it.
static SystemInfoRecord *own_record(const TelemetryCtx *ctx, SystemInfoRecord *records, int count) {
    char mac[kMacTextSize] = {};
    if (mac_to_upper_short_line(mac, ctx->dev_mac) == 0 && mac[0] != '\0') {
        for (int i = 0; i < count; ++i) {
            if (strncmp(records[i].mac, mac, strlen(mac)) == 0)
                return &records[i];
        }
    }
    for (int i = 0; i < count; ++i) {
        if (telemetry_get_device_info_list()[i].is_fap == 1)
            return &records[i];
    }
    return &records[0];
}

int collect_system_info(TelemetryCtx *ctx, cJSON *payload, uint32_t *count) {
    if (ctx == nullptr || payload == nullptr || count == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (ctx->collect_periodic_now == 0) {
        LOG_DEBUG("no need to collect system info");
        return 0;
    }
    const MeshDeviceInfo *devices = telemetry_get_device_info_list();
    SystemInfoList list = {nullptr, telemetry_get_device_num()};
    if (devices == nullptr || list.count < 1) {
        LOG_ERROR("get device list error");
        return -1;
    }
    using Records = std::unique_ptr<SystemInfoRecord, HandleRelease<free>>;
    const Records records(telemetry_zeroed<SystemInfoRecord>(static_cast<size_t>(list.count)));
    if (!records) {
        LOG_ERROR("malloc system info failed");
        return -1;
    }
    list.records = records.get();
    for (int i = 0; i < list.count; ++i)
        copy_text(list.records[i].mac, devices[i].mac);
    SystemInfoRecord *own = own_record(ctx, list.records, list.count);
    collect_data_for_system_info(own);
    collect_data_for_lowpower_info(own);
    if (list.count > 1 && telemetry_transfer_call(TELEMETRY_TRANSFER_SYSTEM, true, nullptr,
                                                  handle_ubus_call_from_re_system_info, &list) != 0)
        LOG_ERROR("get re system info failed");
    if (telemetry_add_collected_system_info(list.records, list.count, payload, count) != 0) {
        LOG_ERROR("add system info failed");
        return -1;
    }
    return 0;
}
