// Reading members of JSON objects that come from other programs: a member of the wrong type counts as
// missing.
#pragma once

#include <cmath>
#include <cstdint>

#include <cjson/cJSON.h>

// Text of a member, or null.
inline const char *json_text(const cJSON *object, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : nullptr;
}

// Number as a whole one, saturated; 0 for NaN.
inline int64_t json_whole(double number) {
    constexpr double kLimit = 9.2e18;
    if (std::isnan(number))
        return 0;
    if (number >= kLimit)
        return INT64_MAX;
    return number <= -kLimit ? INT64_MIN : static_cast<int64_t>(number);
}

// Whole value of a number or boolean member into *value; false when there is none.
inline bool json_int64(const cJSON *object, const char *key, int64_t *value) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (cJSON_IsBool(item)) {
        *value = cJSON_IsTrue(item) ? 1 : 0;
        return true;
    }
    if (!cJSON_IsNumber(item))
        return false;
    *value = json_whole(item->valuedouble);
    return true;
}

// The same, cut to the width of the target as an integer assignment does.
template <typename T> bool json_number(const cJSON *object, const char *key, T *value) {
    int64_t whole = 0;
    if (!json_int64(object, key, &whole))
        return false;
    *value = static_cast<T>(whole);
    return true;
}
