#include "telemetry_utils.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "telemetry_handles.h"
#include "telemetry_log.h"

// Characters of a list's text that count.
static constexpr int kListTextLimit = 128;

struct TruthWord {
    const char *word;
    size_t length;
    int value;
};

// Compared on the word's length only, in this order.
static constexpr TruthWord kTruthWords[] = {
    {"on", 2, 1},
    {"off", 3, 0},
    {"true", 4, 1},
    {"false", 5, 0},
};

static int text_to_switch_or_int(const char *text) {
    for (const TruthWord &truth : kTruthWords)
        if (strncmp(text, truth.word, truth.length) == 0)
            return truth.value;
    return telemetry_text_to_int(text);
}

// Truncates towards zero; what does not fit becomes the nearest limit, what is no number 0.
template <typename Integer> static double truncate_to(double value) {
    constexpr double kLow = static_cast<double>(std::numeric_limits<Integer>::min());
    if (value != value)
        return 0;
    if (value <= kLow)
        return kLow;
    if (value >= -kLow)
        return static_cast<double>(std::numeric_limits<Integer>::max());
    return static_cast<double>(static_cast<Integer>(value));
}

static cJSON *create_value(const char *text, int type) {
    switch (type) {
    case TELEMETRY_VALUE_INT:
        return cJSON_CreateNumber(text_to_switch_or_int(text));
    case TELEMETRY_VALUE_INT64:
        return cJSON_CreateNumber(static_cast<double>(strtoll(text, nullptr, 10)));
    case TELEMETRY_VALUE_DOUBLE:
        return cJSON_CreateNumber(strtod(text, nullptr));
    default:
        return cJSON_CreateString(text);
    }
}

static cJSON *create_element(const char *text, int type) {
    switch (type) {
    case TELEMETRY_VALUE_LIST_INT:
        return cJSON_CreateNumber(truncate_to<int32_t>(strtod(text, nullptr)));
    case TELEMETRY_VALUE_LIST_INT64:
        return cJSON_CreateNumber(truncate_to<int64_t>(strtod(text, nullptr)));
    case TELEMETRY_VALUE_LIST_DOUBLE:
        return cJSON_CreateNumber(strtod(text, nullptr));
    default:
        return cJSON_CreateString(text);
    }
}

static int add_to_object(cJSON *object, const char *key, JsonPtr value) {
    if (value == nullptr || !cJSON_AddItemToObject(object, key, value.get()))
        return -1;
    static_cast<void>(value.release()); // the object's now
    return 0;
}

int telemetry_flag_of_word(const char *text) {
    if (text == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    static constexpr const char *kWords[][2] = {
        {"0", "1"}, {"no", "yes"}, {"off", "on"}, {"false", "true"}, {"disabled", "enabled"}};
    for (const auto &pair : kWords) {
        for (int flag = 0; flag <= 1; flag++) {
            if (strcmp(text, pair[flag]) == 0)
                return flag;
        }
    }
    return -1;
}

int telemetry_add_value_to_cJSON_object(cJSON *object, const char *key, const char *text, int type) {
    if (object == nullptr || key == nullptr || text == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    return add_to_object(object, key, JsonPtr(create_value(text, type)));
}

int telemetry_add_value_list_to_cJSON_object(cJSON *object, const char *key, const char *text, int length,
                                             int type) {
    if (object == nullptr || key == nullptr || text == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (*text == '\0') {
        LOG_ERROR("param is empty");
        return -1;
    }
    JsonPtr array(cJSON_CreateArray());
    if (array == nullptr) {
        LOG_ERROR("cJSON_CreateArray failed");
        return -1;
    }
    char element[kListTextLimit];
    size_t used = 0;
    for (int at = 0; at < length && at < kListTextLimit; at++) {
        if (text[at] != ' ' && text[at] != '\0') {
            element[used++] = text[at];
            continue;
        }
        element[used] = '\0';
        used = 0;
        cJSON_AddItemToArray(array.get(), create_element(element, type));
        if (text[at] == '\0')
            break;
    }
    return add_to_object(object, key, std::move(array));
}

int telemetry_add_mac_md5_to_cJSON_object(cJSON *object, const char *key, const char *mac) {
    char digest[33];
    if (object == nullptr || key == nullptr || mac == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    if (md5_encode_str(reinterpret_cast<const uint8_t *>(mac), static_cast<int32_t>(strlen(mac)), digest) !=
        0)
        return -1;
    JsonPtr text(cJSON_CreateString(digest));
    if (text == nullptr || !cJSON_AddItemToObjectCS(object, key, text.get()))
        return -1;
    static_cast<void>(text.release()); // the object's now
    return 0;
}
