// Reading members of JSON objects that come from other programs: a member of the wrong type counts as
// missing.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include <cjson/cJSON.h>

#include "telemetry_handles.h"

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

// Visits the elements of the array that a text holds, one after the other, each a tree of its own: that of a
// long list is ten times as large as its text. False when it is no JSON; elements before the mistake have
// been visited then. Of another value, such as the object that some languages write for an empty list, the
// members.
template <typename Visit> bool json_each_element(const char *text, Visit visit) {
    const char *const end = text + strlen(text) + 1; // the terminator counts
    const auto skip_blanks = [&text] {
        while (*text != '\0' && static_cast<unsigned char>(*text) <= ' ')
            ++text;
    };
    if (strncmp(text, "\xEF\xBB\xBF", 3) == 0) // as cJSON does
        text += 3;
    skip_blanks();
    if (*text != '[') {
        const JsonPtr other(cJSON_Parse(text));
        for (const cJSON *member = other ? other->child : nullptr; member != nullptr; member = member->next)
            visit(member);
        return other != nullptr;
    }
    ++text;
    skip_blanks();
    if (*text == ']')
        return true;
    for (;; ++text) {
        const JsonPtr element(cJSON_ParseWithLengthOpts(text, static_cast<size_t>(end - text), &text, false));
        if (!element)
            return false;
        visit(element.get());
        skip_blanks();
        if (*text != ',')
            return *text == ']';
    }
}
