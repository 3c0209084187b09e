#include "telemetry_json_message.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

// As deep as cJSON parses.
static constexpr int kDepthLimit = CJSON_NESTING_LIMIT;

static JsonPtr list_of(blob_attr *attr, bool array, int depth);

// What is left of a number that was printed with "%lf": six decimals; null when it is none of JSON.
static JsonPtr number_of_double(double number) {
    char text[512]; // the largest double has 316 characters
    if (!std::isfinite(number))
        return nullptr;
    snprintf(text, sizeof(text), "%lf", number);
    return JsonPtr(cJSON_CreateNumber(strtod(text, nullptr)));
}

static JsonPtr value_of(blob_attr *attr, int depth) {
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_UNSPEC:
        return JsonPtr(cJSON_CreateNull());
    case BLOBMSG_TYPE_BOOL:
        return JsonPtr(cJSON_CreateBool(blobmsg_get_bool(attr)));
    case BLOBMSG_TYPE_INT16:
        return JsonPtr(cJSON_CreateNumber(static_cast<int16_t>(blobmsg_get_u16(attr))));
    case BLOBMSG_TYPE_INT32:
        return JsonPtr(cJSON_CreateNumber(static_cast<int32_t>(blobmsg_get_u32(attr))));
    case BLOBMSG_TYPE_INT64:
        return JsonPtr(cJSON_CreateNumber(static_cast<double>(static_cast<int64_t>(blobmsg_get_u64(attr)))));
    case BLOBMSG_TYPE_DOUBLE:
        return number_of_double(blobmsg_get_double(attr));
    case BLOBMSG_TYPE_STRING:
        return JsonPtr(cJSON_CreateString(blobmsg_get_string(attr)));
    case BLOBMSG_TYPE_ARRAY:
        return list_of(attr, true, depth + 1);
    case BLOBMSG_TYPE_TABLE:
        return list_of(attr, false, depth + 1);
    default:
        return nullptr;
    }
}

// Of an attribute that is no value the text has nothing: only where it is alone in its list is that JSON.
static JsonPtr list_of(blob_attr *attr, bool array, int depth) {
    if (depth > kDepthLimit)
        return nullptr;
    JsonPtr list(array ? cJSON_CreateArray() : cJSON_CreateObject());
    bool damaged = false;
    int elements = 0;
    blob_attr *entry = nullptr;
    size_t rest = 0;
    blobmsg_for_each_attr(entry, attr, rest) {
        if (++elements > 1 && damaged)
            return nullptr;
        if (!blobmsg_check_attr(entry, false)) {
            damaged = true;
            if (elements > 1)
                return nullptr;
            continue;
        }
        JsonPtr value = value_of(entry, depth);
        const char *name = blobmsg_name(entry);
        if (!value || !list || (!array && *name == '\0'))
            return nullptr;
        if (array ? !cJSON_AddItemToArray(list.get(), value.get())
                  : !cJSON_AddItemToObject(list.get(), name, value.get()))
            return nullptr;
        static_cast<void>(value.release()); // the list's now
    }
    return list;
}

JsonPtr telemetry_json_of_message(blob_attr *message) {
    if (message == nullptr)
        return nullptr;
    return list_of(message, blob_is_extended(message) && blobmsg_type(message) == BLOBMSG_TYPE_ARRAY, 1);
}
