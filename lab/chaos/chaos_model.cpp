#include "chaos_model.h"

#include <algorithm>
#include <iterator>

namespace chaos {

namespace {

// In the order of a cycle.
constexpr const char *kModules[] = {
    "internet_info",     "ecomode_info",      "iptv_info",     "qos_info",           "quicksetup_info",
    "client_info",       "device_info",       "system_info",   "wireless_host_info", "wireless_guest_info",
    "wireless_iot_info", "cloud_info",        "advanced_info", "restart_info",       "usb_info",
    "afc_info",          "havenguard_info_v2"};
constexpr int kKeyExpired = -10304;
constexpr int64_t kLimitMs = 8000;     // of one upload: a later one is not under way beside it
constexpr int64_t kTransferMs = 20000; // an upload has ended by then, by the lab's clock

int module_of(const std::string &eid) {
    const auto *found = std::find(std::begin(kModules), std::end(kModules), eid);
    if (found == std::end(kModules))
        throw Finding("a record of \"" + eid + "\"");
    return static_cast<int>(found - std::begin(kModules));
}

bool same(const lab::CloudRecord &a, const lab::CloudRecord &b) {
    return a.eid == b.eid && a.ct == b.ct && a.payload == b.payload;
}

// Records with which `next` repeats those of `before`, from some record on (its oldest may have been dropped
// meanwhile) to the end of either.
size_t repeated(const std::vector<lab::CloudRecord> &before, const std::vector<lab::CloudRecord> &next) {
    for (size_t from = 0; from < before.size(); from++) {
        const size_t count = std::min(before.size() - from, next.size());
        const auto begin = before.begin() + static_cast<std::ptrdiff_t>(from);
        if (std::equal(begin, begin + static_cast<std::ptrdiff_t>(count), next.begin(), same))
            return count;
    }
    return 0;
}

} // namespace

void Model::read_requests() {
    for (const lab::CloudRequest &request : world_.lab.cloud().requests("", last_request_)) {
        last_request_ = request.id;
        const bool refused = request.verdict == "refused" && request.error_code != kKeyExpired;
        if (request.signature == 0 || refused)
            throw Finding("the cloud refused a " + request.call + " (" + std::to_string(request.error_code) +
                          ", signature " + std::to_string(request.signature) + "): " + request.headers +
                          request.body.substr(0, 400));
        if (request.call == "upload" && request.verdict == "accepted")
            sent_.push_back(request.time);
    }
}

void Model::read() {
    // An upload is in the store before its request is.
    const std::vector<lab::CloudRecord> arrived = world_.lab.cloud().records(last_post_);
    read_requests();
    Post post;
    for (size_t i = 0; i < arrived.size(); i++) {
        post.records.push_back(arrived[i]);
        if (i + 1 == arrived.size() || arrived[i + 1].post != arrived[i].post) {
            if (sent_.empty())
                return; // with the next reading
            last_post_ = arrived[i].post;
            post.sent = sent_.front();
            sent_.pop_front();
            take(post);
            post.records.clear();
        }
    }
}

void Model::take(const Post &post) {
    posts++;
    const int64_t apart = world_.advanced_at(post.sent) - world_.advanced_at(last_.sent + 1);
    // The second of two that were under way may reach the cloud when the daemon waits for neither.
    const bool known = balanced_ && apart > kTransferMs;
    const size_t again = known ? 0 : repeated(last_.records, post.records);
    repeated_posts += again > 0 && apart > kTransferMs ? 1 : 0;
    again_ += apart > kLimitMs ? static_cast<long>(again) : 0;
    for (size_t i = again; i < post.records.size(); i++)
        take_record(post.records[i]);
    last_ = post;
    balanced_ = false;
}

void Model::take_record(const lab::CloudRecord &record) {
    const lab::JsonTree payload(cJSON_Parse(record.payload.c_str()));
    if (!cJSON_IsObject(payload.get()) || payload->child == nullptr)
        throw Finding("half a record of " + record.eid + ": " + record.payload);
    records++;
    const int module = module_of(record.eid);
    // A cycle ends where the modules begin again.
    if (module <= last_module_)
        cycles_++;
    last_module_ = module;
    since_mark[record.eid].push_back(record.payload);
    if (record.eid != "qos_info")
        return;
    const long value = static_cast<long>(lab::json_number(payload.get(), "ub", -1));
    if (value >= 0 && (value < setting_ || value > world_.setting))
        throw Finding("an old value is told as new: " + std::to_string(value) + " after " +
                      std::to_string(setting_) + ", written up to " + std::to_string(world_.setting));
    setting_ = std::max(setting_, value);
}

void Model::balance(const Status &status) {
    const std::string figures =
        ": the cloud has " + std::to_string(posts) + " posts (" + std::to_string(repeated_posts) +
        " repeated the one before) with " + std::to_string(records) + " records of " +
        std::to_string(cycles_) + " cycles, the daemon collected " + std::to_string(status.records) + " in " +
        std::to_string(status.cycles) + " cycles, knows of " + std::to_string(status.accepted) +
        " accepted posts and dropped " + std::to_string(status.dropped_items) + " items";
    const long unknown = posts - status.accepted;
    if (unknown < 0 || repeated_posts > unknown)
        throw Finding("uploads that the daemon knows of and those at the cloud differ" + figures);
    if (cycles_ > status.cycles)
        throw Finding("records of more cycles than there were" + figures);
    const long lost = status.records - records, dropped = status.dropped_items - dropped_items_;
    // With every upload known to the daemon, what looked like coming again was collected again, by a wall
    // clock that went back.
    const long alike = unknown == unknown_ ? again_ : 0;
    if (lost < lost_ || lost - lost_ > dropped + alike)
        throw Finding("records are lost or doubled, and no counter tells" + figures + "; lost before " +
                      std::to_string(lost_) + ", now " + std::to_string(lost));
    lost_ = lost;
    unknown_ = unknown;
    again_ = 0;
    balanced_ = true;
    dropped_items_ = status.dropped_items;
}

} // namespace chaos
