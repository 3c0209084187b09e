#include "faults.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <sys/stat.h>

namespace lab {

namespace {

struct KindName {
    const char *name;
    FaultKind kind;
};
constexpr KindName kKindNames[] = {
    {"absent", FaultKind::absent}, {"slow", FaultKind::slow},         {"silent", FaultKind::silent},
    {"status", FaultKind::status}, {"no_data", FaultKind::no_data},   {"empty", FaultKind::empty},
    {"types", FaultKind::types},   {"nonsense", FaultKind::nonsense}, {"garbage", FaultKind::garbage},
    {"huge", FaultKind::huge},     {"reply", FaultKind::reply},       {"die", FaultKind::die},
    {"twice", FaultKind::twice},
};

// A huge reply stays below the bus's limit of 1 MiB, so that it arrives.
constexpr size_t kHugeLimit = 700000;
constexpr size_t kHugeText = 3000;
constexpr size_t kGarbageSize = 400;

Fault parse_fault(const cJSON *item) {
    Fault fault;
    const std::string kind = json_text(item, "kind");
    for (const KindName &known : kKindNames) {
        if (kind == known.name)
            fault.kind = known.kind;
    }
    if (fault.kind == FaultKind::none)
        throw std::runtime_error("unknown kind \"" + kind + "\"");
    fault.delay_ms = static_cast<int>(json_number(item, "delay_ms", 1000));
    fault.status = static_cast<int>(json_number(item, "status", 9));
    fault.times = static_cast<int>(json_number(item, "times", fault.kind == FaultKind::twice ? 2 : 1));
    fault.skip = static_cast<int>(json_number(item, "skip", 0));
    if (const cJSON *reply = cJSON_GetObjectItemCaseSensitive(item, "reply"))
        fault.text = print_json(reply);
    return fault;
}

// Identity and time of the file: another after every write by rename.
std::string stamp_of(const std::string &path) {
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0)
        return "none";
    return std::to_string(info.st_ino) + "." + std::to_string(info.st_size) + "." +
           std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec);
}

void add_garbage(blob_buf *reply) {
    // The same bytes every time: a failure can be had again.
    uint32_t state = 0x2545F491;
    std::vector<uint8_t> bytes(kGarbageSize);
    for (uint8_t &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(state >> 24);
    }
    blob_put_raw(reply, bytes.data(), static_cast<unsigned>(bytes.size()));
}

void add_nonsense(blob_buf *reply) {
    blobmsg_add_string(reply, "", "no name");
    blobmsg_add_string(reply, "mac", "not an address, and longer than any of them");
    blobmsg_add_string(reply, "success", "yes");
    blobmsg_add_u32(reply, "data", 7);
    blobmsg_add_u32(reply, "total", 0xFFFFFFFF);
    void *list = blobmsg_open_array(reply, "tfslist");
    for (int i = 0; i < 3; i++)
        blobmsg_add_double(reply, nullptr, 0.5 * i);
    blobmsg_close_array(reply, list);
    void *entry = blobmsg_open_table(reply, "entry");
    blobmsg_add_string(reply, "mac", "");
    blobmsg_add_string(reply, "ip", "\xff\xfe\x01");
    blobmsg_close_table(reply, entry);
}

bool is_container(const blob_attr *attr) {
    const int type = blobmsg_type(attr);
    return type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY;
}

void add_other_type(blob_attr *attr, blob_buf *out) {
    const char *name = blobmsg_name(attr);
    if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING)
        blobmsg_add_u32(out, name, 12345);
    else
        blobmsg_add_string(out, name, "12345");
}

// Members of `real` with every value but tables and arrays in another type; those change places.
void add_other_types(blob_attr *real, blob_buf *out) {
    blob_attr *attr;
    size_t rest;
    blobmsg_for_each_attr(attr, real, rest) {
        if (!is_container(attr)) {
            add_other_type(attr, out);
            continue;
        }
        const bool table = blobmsg_type(attr) == BLOBMSG_TYPE_TABLE;
        void *cookie =
            table ? blobmsg_open_array(out, blobmsg_name(attr)) : blobmsg_open_table(out, blobmsg_name(attr));
        add_other_types(attr, out);
        if (table)
            blobmsg_close_array(out, cookie);
        else
            blobmsg_close_table(out, cookie);
    }
}

size_t used(const blob_buf *out) {
    return blob_len(out->head);
}

// Every text is far too long, and the last entry of every list stands there over and over.
void add_huge(blob_attr *real, blob_buf *out, size_t limit) {
    blob_attr *attr, *last = nullptr;
    size_t rest;
    blobmsg_for_each_attr(attr, real, rest) {
        last = attr;
        if (used(out) > limit)
            continue;
        const char *name = blobmsg_name(attr);
        if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING && strcmp(name, "mac") != 0) {
            blobmsg_add_string(out, name, (blobmsg_get_string(attr) + std::string(kHugeText, 'x')).c_str());
        } else if (!is_container(attr)) {
            blobmsg_add_blob(out, attr);
        } else if (blobmsg_type(attr) == BLOBMSG_TYPE_TABLE) {
            void *cookie = blobmsg_open_table(out, name);
            add_huge(attr, out, limit);
            blobmsg_close_table(out, cookie);
        } else {
            void *cookie = blobmsg_open_array(out, name);
            add_huge(attr, out, limit);
            blobmsg_close_array(out, cookie);
        }
    }
    const bool list = blobmsg_type(real) == BLOBMSG_TYPE_ARRAY;
    while (last != nullptr && list && used(out) < limit)
        blobmsg_add_blob(out, last);
}

} // namespace

FaultFile::FaultFile(std::string path) : path_(std::move(path)) {
    refresh();
}

bool FaultFile::refresh() {
    const std::string stamp = stamp_of(path_);
    if (stamp == stamp_)
        return false;
    stamp_ = stamp;
    load();
    return true;
}

void FaultFile::load() {
    faults_.clear();
    if (stamp_ == "none")
        return;
    try {
        const JsonTree tree = parse_json(read_file(path_), path_);
        const cJSON *item;
        cJSON_ArrayForEach(item, tree.get()) faults_[item->string] = parse_fault(item);
    } catch (const std::exception &error) {
        fprintf(stderr, "faults: %s\n", error.what());
    }
}

bool FaultFile::is_absent(const std::string &object) const {
    const auto found = faults_.find(object);
    return found != faults_.end() && found->second.kind == FaultKind::absent;
}

Fault *FaultFile::find(const std::string &object, const std::string &method) {
    for (const std::string &key : {object + "." + method, object}) {
        const auto found = faults_.find(key);
        if (found != faults_.end())
            return &found->second;
    }
    return nullptr;
}

Fault FaultFile::take(const std::string &object, const std::string &method) {
    Fault *fault = find(object, method);
    if (fault == nullptr)
        return {};
    if (fault->skip > 0) {
        fault->skip--;
        return {};
    }
    return *fault;
}

void fault_make_reply(const Fault &fault, blob_buf *reply) {
    blob_buf_init(reply, 0);
    if (fault.kind == FaultKind::garbage)
        add_garbage(reply);
    else if (fault.kind == FaultKind::nonsense)
        add_nonsense(reply);
    else if (fault.kind == FaultKind::reply && !blobmsg_add_json_from_string(reply, fault.text.c_str()))
        fprintf(stderr, "faults: the reply is no object: %s\n", fault.text.c_str());
}

void fault_distort_reply(const Fault &fault, blob_attr *real, blob_buf *distorted) {
    blob_buf_init(distorted, 0);
    if (fault.kind == FaultKind::types)
        add_other_types(real, distorted);
    else if (blob_buf_grow(distorted,
                           static_cast<int>(kHugeLimit + kHugeText))) // in one step, not in thousands
        add_huge(real, distorted, kHugeLimit);
}

} // namespace lab
