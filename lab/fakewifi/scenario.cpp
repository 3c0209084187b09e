#include "scenario.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fakewifi {

namespace {

struct JsonDelete {
    void operator()(cJSON *tree) const {
        cJSON_Delete(tree);
    }
};

struct FileClose {
    void operator()(FILE *file) const {
        fclose(file);
    }
};

struct LoadedFile {
    std::string path;
    struct stat state = {};
    std::unique_ptr<cJSON, JsonDelete> tree;
};

constexpr size_t kMaxFile = 1 << 20;
constexpr size_t kStationHeader = 8;
constexpr size_t kEntrySize = 32;

// Little-endian or not: the driver answers in the machine's own order.
template <typename T> void put(std::vector<uint8_t> &bytes, size_t at, T value) {
    if (at + sizeof(value) <= bytes.size())
        memcpy(bytes.data() + at, &value, sizeof(value));
}

double number(const cJSON *object, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsNumber(item) ? item->valuedouble : 0;
}

void put_mac(std::vector<uint8_t> &bytes, size_t at, const cJSON *object) {
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, "mac"));
    unsigned b[6] = {};
    if (text == nullptr)
        return;
    if (sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6 &&
        sscanf(text, "%2x-%2x-%2x-%2x-%2x-%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6)
        return;
    for (size_t i = 0; i < 6; i++)
        put(bytes, at + i, static_cast<uint8_t>(b[i]));
}

void fill_byte(std::vector<uint8_t> &bytes, const cJSON *value) {
    put(bytes, 0, static_cast<uint8_t>(static_cast<int>(value->valuedouble)));
}

void fill_temperature(std::vector<uint8_t> &bytes, const cJSON *value) {
    put(bytes, 0, static_cast<int32_t>(value->valuedouble));
}

void fill_rates(std::vector<uint8_t> &bytes, size_t at, const cJSON *record) {
    put_mac(bytes, at, record);
    put(bytes, at + 8, static_cast<uint64_t>(number(record, "tx")));
    put(bytes, at + 16, static_cast<uint64_t>(number(record, "rx")));
}

void fill_uplink(std::vector<uint8_t> &bytes, const cJSON *value) {
    fill_rates(bytes, 0, value);
    put(bytes, 24, static_cast<int8_t>(number(value, "rssi")));
}

void fill_stations(std::vector<uint8_t> &bytes, const cJSON *value) {
    put(bytes, 0, static_cast<uint16_t>(cJSON_GetArraySize(value)));
    size_t at = kStationHeader;
    const cJSON *station = nullptr;
    cJSON_ArrayForEach(station, value) {
        if (at + kEntrySize > bytes.size())
            break;
        fill_rates(bytes, at, station);
        put(bytes, at + 26, static_cast<uint16_t>(number(station, "phymode")));
        at += kEntrySize;
    }
}

struct Subcommand {
    uint16_t code;
    const char *member;
    size_t length;
    void (*fill)(std::vector<uint8_t> &bytes, const cJSON *value);
};

constexpr Subcommand kSubcommands[] = {
    {0x9A1, "temperature", 4, fill_temperature}, {0x7B0, "utilisation", 1, fill_byte},
    {0x7B1, "stations", 2056, fill_stations},    {0x7B2, "channel", 1, fill_byte},
    {0x7B3, "bandwidth", 1, fill_byte},          {0x7B4, "uplink", 32, fill_uplink},
};

std::string scenario_path() {
    const char *file = getenv("FAKEWIFI_FILE");
    if (file != nullptr)
        return file;
    const char *root = getenv("TELEMETRY_SYSROOT");
    return std::string(root == nullptr ? "" : root) + "/tmp/fakewifi.json";
}

bool same_file(const struct stat &a, const struct stat &b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

std::string read_file(const std::string &path) {
    const std::unique_ptr<FILE, FileClose> file(fopen(path.c_str(), "re"));
    std::string text;
    char block[4096];
    for (size_t n;
         file != nullptr && text.size() < kMaxFile && (n = fread(block, 1, sizeof(block), file.get())) > 0;)
        text.append(block, n);
    return text;
}

const char *fault_of(const cJSON *interface, const char *member) {
    const cJSON *faults = cJSON_GetObjectItemCaseSensitive(interface, "faults");
    const char *fault = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(faults, member));
    if (fault == nullptr)
        fault = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(faults, "all"));
    return fault == nullptr ? "" : fault;
}

// Radio of an access point interface ("rax5" is one of "rax0"), empty for other names.
std::string radio_of(const std::string &ifname) {
    for (const char *prefix : {"rax", "ra"}) {
        const size_t length = strlen(prefix);
        if (ifname.size() == length + 1 && ifname.compare(0, length, prefix) == 0 && ifname.back() >= '0' &&
            ifname.back() <= '5')
            return std::string(prefix) + "0";
    }
    return {};
}

// What the scenario says of an interface: its own object, or an empty one for an access point that only its
// radio vouches for. Null: there is no such interface.
const cJSON *find_interface(const cJSON *scenario, const std::string &ifname) {
    static const cJSON *const kUnlisted = cJSON_CreateObject();
    const cJSON *interfaces = cJSON_GetObjectItemCaseSensitive(scenario, "interfaces");
    const cJSON *found = cJSON_GetObjectItemCaseSensitive(interfaces, ifname.c_str());
    if (found != nullptr)
        return found;
    const std::string radio = radio_of(ifname);
    return !radio.empty() && cJSON_HasObjectItem(interfaces, radio.c_str()) ? kUnlisted : nullptr;
}

} // namespace

const cJSON *scenario_current() {
    static LoadedFile loaded;
    const std::string path = scenario_path();
    struct stat state = {};
    if (stat(path.c_str(), &state) != 0) {
        loaded = {};
        return nullptr;
    }
    if (loaded.tree != nullptr && path == loaded.path && same_file(state, loaded.state))
        return loaded.tree.get();
    loaded.path = path;
    loaded.state = state;
    loaded.tree.reset(cJSON_Parse(read_file(path).c_str()));
    if (loaded.tree == nullptr)
        fprintf(stderr, "fakewifi: %s is not JSON\n", path.c_str());
    return loaded.tree.get();
}

int scenario_answer(const cJSON *scenario, const char *ifname, uint16_t subcommand, uint8_t *answer,
                    size_t length, size_t *answered) {
    static const cJSON *const kNoStations = cJSON_CreateArray();
    const cJSON *interface = find_interface(scenario, ifname);
    if (interface == nullptr)
        return ENODEV;
    const Subcommand *known = nullptr;
    for (const Subcommand &candidate : kSubcommands) {
        if (candidate.code == subcommand)
            known = &candidate;
    }
    const cJSON *value =
        known == nullptr ? nullptr : cJSON_GetObjectItemCaseSensitive(interface, known->member);
    if (value == nullptr && known != nullptr && known->fill == fill_stations && !radio_of(ifname).empty())
        value = kNoStations;
    if (value == nullptr)
        return EOPNOTSUPP;
    if (length != known->length)
        return EINVAL;
    if (answer == nullptr)
        return EFAULT;
    const std::string fault = fault_of(interface, known->member);
    if (fault == "nodev")
        return ENODEV;
    if (fault == "busy")
        return EBUSY;
    std::vector<uint8_t> bytes(length);
    known->fill(bytes, value);
    if (fault == "count")
        put(bytes, 0, static_cast<uint16_t>(65535));
    memcpy(answer, bytes.data(), length);
    *answered = fault == "silent" ? 0 : length;
    return 0;
}

} // namespace fakewifi
