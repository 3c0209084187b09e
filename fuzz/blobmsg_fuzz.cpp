// The bytes as a message from the bus (parse, walk, print) and as JSON text from a user (convert, print
// again).
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/fuzz_target.h"
#include "telemetry_blob.h"
#include "telemetry_handles.h"

static const blobmsg_policy policy[] = {
    {"a", BLOBMSG_TYPE_STRING}, {"b", BLOBMSG_TYPE_INT32},  {"c", BLOBMSG_TYPE_TABLE},
    {"d", BLOBMSG_TYPE_ARRAY},  {"e", BLOBMSG_TYPE_UNSPEC}, {"f", BLOBMSG_CAST_INT64},
};
static constexpr int policy_len = static_cast<int>(ARRAY_SIZE(policy));

// Every accessor on everything, checked or not; what a walk yields is sound in its length only.
static void read_all(blob_attr *list, int depth) {
    size_t rem = 0;
    blob_attr *pos = nullptr;
    volatile uint64_t sink = 0;
    blobmsg_for_each_attr(pos, list, rem) {
        sink = sink + strlen(blobmsg_name(pos)) + strlen(blobmsg_get_string(pos)) + blobmsg_get_u8(pos) +
               blobmsg_get_u16(pos) + blobmsg_get_u32(pos) + blobmsg_cast_u64(pos);
        sink = sink + static_cast<uint64_t>(blobmsg_cast_s64(pos));
        if (blobmsg_check_attr_len(pos, true, rem) &&
            blobmsg_check_attr_list_len(pos, BLOBMSG_TYPE_UNSPEC, rem))
            require(blobmsg_check_attr_list(pos, BLOBMSG_TYPE_UNSPEC));
        TextPtr value(blobmsg_format_json_value(pos)), named(blobmsg_format_json(pos, false));
        if (depth < 4)
            read_all(pos, depth + 1);
    }
}

static void run_message(const uint8_t *data, size_t size) {
    std::vector<char> exact(sizeof(blob_attr) + size);
    auto *head = reinterpret_cast<blob_attr *>(exact.data());
    head->id_len = 0;
    blob_set_raw_len(head, static_cast<unsigned int>(exact.size()));
    memcpy(blob_data(head), data, size);
    blob_attr *tb[policy_len];
    bool sound = blobmsg_parse(policy, policy_len, tb, blob_data(head), static_cast<unsigned int>(size)) == 0;
    for (int i = 0; i < policy_len; i++)
        require(!tb[i] || blobmsg_check_attr(tb[i], true));
    if (sound && tb[0])
        require(strlen(blobmsg_get_string(tb[0])) < blobmsg_data_len(tb[0]));
    blobmsg_parse_array(policy, policy_len, tb, blob_data(head), static_cast<unsigned int>(size));
    blob_parse(head, tb, nullptr, policy_len);
    read_all(head, 0);
    TextPtr compact(blobmsg_format_json(head, true));
    TextPtr indented(blobmsg_format_json_indent(head, true, 0));
    require_with_memory(!compact == !indented);
}

// A member without a name is printed as a bare value, as on the platform.
static bool may_have_unnamed_member(const std::string &text) {
    for (const char *name : {R"("")", R"("\u0000)", "''", R"('\u0000)"}) {
        if (text.find(name) != std::string::npos)
            return true;
    }
    return false;
}

// What was converted is a sound message, and its text converts to a message with the same text. A number
// beyond the largest real prints as "inf", as it does on the platform; JSON has no such number.
static void run_text(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    BlobBuffer b, again;
    if (b.head() == nullptr)
        return;
    const bool added = blobmsg_add_json_from_string(b.get(), text.c_str());
    const auto len = static_cast<unsigned int>(blob_len(b.head()));
    if (!added || len == 0)
        return require(len == 0);
    blob_attr *tb[policy_len];
    require(blobmsg_parse(policy, policy_len, tb, blob_data(b.head()), len) == 0);
    const TextPtr first(blobmsg_format_json(b.head(), true));
    require_with_memory(first != nullptr);
    if (first == nullptr || again.head() == nullptr || strstr(first.get(), "inf") ||
        may_have_unnamed_member(text))
        return;
    const bool added_again = blobmsg_add_json_from_string(again.get(), first.get());
    const TextPtr second(blobmsg_format_json(again.head(), true));
    require_with_memory(added_again && second && strcmp(first.get(), second.get()) == 0);
}

static const FuzzTargets registered({{"blobmsg", run_message, mutate_blobmsg}, {"blobmsg_text", run_text}});
