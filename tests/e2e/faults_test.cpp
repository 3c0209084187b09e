// One failure at a time of what the main node's daemon asks for, memory or a system call, where none has
// failed yet: at its start with key and strategy to get, in a cycle with everything to report, and in an
// upload whose key has expired.
//
// FAULTS=N strikes the first N places of each stretch instead of a few spread ones and goes on after a
// failure; FAULTS=0 all. FAULTS_ERROR=ERRNO: calls with that error only.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>

#include "../../lab/fakefail/fail_order.h"
#include "home_lab.h"

namespace {

using Records = std::map<std::string, std::string>; // payloads by record

struct Faults : ::testing::Test {
    void start(FailKind kind) {
        home = std::make_unique<HomeLab>("{}", "home", [&](lab::LabNode &main) {
            lab::write_file(main.fail_file(), std::string(sizeof(FailOrder), '\0'));
            const int fd = open(main.fail_file().c_str(), O_RDWR | O_CLOEXEC);
            order = static_cast<FailOrder *>(
                mmap(nullptr, sizeof(FailOrder), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
            close(fd);
            ASSERT_NE(order, MAP_FAILED);
            order->kind = watched = kind;
        });
        node = &home->lab.node();
        info = node->read("/etc/config/telemetry_info");
        for (auto &[package, least] : packages)
            least = sections(node->read(package));
        collect(); // the other nodes tell of their settings' change once
        whole = collect();
        ASSERT_EQ(whole.size(), 17U);
    }
    void TearDown() override {
        if (!home)
            return;
        order->at = 0;
        EXPECT_EQ(home->stop(), "");
        munmap(order, sizeof(FailOrder));
    }

    // What the daemon is made to do, from where, and what must hold when something failed meanwhile.
    struct Stretch {
        void (Faults::*prepare)();
        void (Faults::*run)();
        void (Faults::*look)();
    };
    // Strikes a stretch once at each of `places`, of which each `step`th counts.
    void strike(const Stretch &stretch, FailKind kind, int32_t error, int places, int step) {
        const char *wanted = getenv("FAULTS");
        if (wanted != nullptr)
            places = atoi(wanted) == 0 ? INT_MAX : atoi(wanted);
        order->step = wanted != nullptr ? 1 : step;
        for (int done = 0; done < places && (!HasFailure() || wanted != nullptr); ++done) {
            (this->*stretch.prepare)();
            order->seen = order->hit = 0;
            order->unseen = 1;
            order->error = error;
            order->at = kFailUnseen;
            order->kind = kind;
            (this->*stretch.run)();
            order->at = 0;
            order->kind = watched;
            if (order->hit == 0) {
                EXPECT_GT(done, 0) << "nothing was struck of " << order->seen;
                break;
            }
            SCOPED_TRACE(where());
            if (error == kFailKill)
                expect_killed();
            else
                (this->*stretch.look)();
        }
        if (!node->daemon.running())
            start_daemon();
    }
    std::string where() const {
        std::string text = "failed: " + std::to_string(order->hit - 1) + " of " +
                           std::to_string(order->seen) + ", addr2line -Cfpe telemetry";
        char frame[24];
        for (const auto &address : order->from)
            if (address != 0) {
                snprintf(frame, sizeof(frame), " %#lx", static_cast<unsigned long>(address));
                text += frame;
            }
        return text;
    }

    // --- Steps ---

    // Nothing counts as reported, what is read once is there again, and no start is counted.
    void everything_to_report() {
        node->call("clear");
        node->call("collect_all_next_time");
        node->write("/tmp/telemetry/telemetry", "");
        node->write("/tmp/telemetry/restart", "1\n");
        node->write("/etc/config/telemetry_info", info);
        node->remove("/tmp/.uci/telemetry_info"); // what a failed commit left staged
        node->write("/tmp/cloud_heartbeat_timeout_count", "4\n");
    }
    // A number of the status, -1 when the daemon does not answer.
    int64_t figure(const char *table, const char *name) const {
        const lab::BusReply reply = node->call_object("telemetry.status", "get", "{}", 2);
        const cJSON *value = cJSON_GetObjectItem(cJSON_GetObjectItem(reply.json.get(), table), name);
        return cJSON_IsNumber(value) ? static_cast<int64_t>(value->valuedouble) : -1;
    }
    bool wait(const std::function<bool()> &done) const {
        for (int tries = 0; tries < 300 && node->daemon.running(); ++tries) {
            if (done())
                return true;
            node->advance_clock(100);
            usleep(2000 + 50 * tries); // slower, as a busy machine may be
        }
        return false;
    }
    // A cycle ends, when it comes about at all.
    void cycle() {
        node->call("collect_now", "{}", 2);
        wait([&] { return figure("next", "collect_ms") > 60000; });
    }
    Records records() const {
        Records records;
        const lab::JsonTree list(cJSON_Parse(node->state()["list"].c_str()));
        for (const cJSON *record = list ? list->child : nullptr; record != nullptr; record = record->next)
            records[cJSON_GetObjectItem(record, "eid")->valuestring] =
                lab::print_json(cJSON_GetObjectItem(record, "ep"));
        return records;
    }
    // The key that the records of `whole` are to go out with has expired.
    void key_expired() {
        if (records() != whole)
            collect();
        home->lab.cloud().expire_keys();
        posts = home->lab.cloud().count("posts");
    }
    bool uploaded() const {
        return home->lab.cloud().count("posts") > posts && node->number("data_collect_count") == 0;
    }
    void upload() {
        node->call("post_now", "{}", 2);
        wait([&] { return uploaded(); });
    }
    // No key and no strategy is there, and the daemon does not run.
    void first_start() {
        EXPECT_EQ(node->daemon.stop(), 0) << node->read("/lab/daemon.log") << node->log();
        for (const char *option : {"accessKey", "accessSecret", "accessDevice"})
            node->set_config("telemetry", "cloud", option, "");
        for (const char *option : {"strategyID", "collect_interval", "collect_interval_2", "post_interval"})
            node->set_config("telemetry", "strategy", option, "");
    }
    void start_daemon() {
        node->start_daemon();
        wait([&] { return ready(); });
    }
    bool ready() const {
        if (figure("next", "collect_ms") < 0)
            return false;
        // Not by the dump: the console may be what was struck.
        const lab::BusReply status = node->call_object("telemetry.status", "get", "{}", 5);
        return lab::json_text(status.json.get(), "state") == "ready";
    }
    Records collect() {
        everything_to_report();
        cycle();
        return records();
    }

    // --- What must hold ---

    void expect_running() {
        ASSERT_TRUE(node->daemon.running())
            << node->read("/lab/daemon.log")
            << node->console(std::max<size_t>(node->console_length(), 4000) - 4000);
        expect_packages();
    }
    static size_t sections(const std::string &text) {
        size_t count = 0;
        for (size_t at = 0; (at = text.find("\nconfig ", at)) != text.npos; ++at)
            ++count;
        return count;
    }
    // A package is what it was or is to be: no section is gone, and it ends with a line.
    void expect_packages() const {
        for (const auto &[package, least] : packages) {
            const std::string text = node->read(package);
            EXPECT_GE(sections(text), least) << package << "\n" << text;
            EXPECT_TRUE(text.empty() || text.back() == '\n') << package << "\n" << text;
        }
    }
    // What the cycle had recorded is right, and the next one brings what it had not.
    void expect_recovery() {
        expect_running();
        Records both = records();
        if (both != whole) {
            node->call("clear");
            node->call("collect_all_next_time");
            cycle();
        }
        both.merge(records());
        for (const auto &[eid, payload] : whole)
            EXPECT_EQ(both[eid], payload) << eid;
    }
    void expect_as_before() {
        expect_running();
        const Records again = collect();
        for (const auto &[eid, payload] : whole)
            EXPECT_EQ(again.count(eid) == 0 ? "" : again.at(eid), payload) << eid << node->log();
    }
    // The last key is there, or nobody's: the next start fetches another.
    void expect_key() const {
        if (node->config("telemetry", "cloud", "accessDevice") == "-")
            return;
        const std::vector<lab::CloudKey> keys = home->lab.cloud().keys();
        ASSERT_FALSE(keys.empty());
        EXPECT_EQ(node->config("telemetry", "cloud", "accessKey"), keys.back().access_key);
        EXPECT_EQ(node->config("telemetry", "cloud", "accessSecret"), keys.back().access_secret);
    }
    // All records have arrived, once the daemon was told again.
    void expect_uploaded() {
        expect_running();
        for (int tries = 0; tries < 3 && !uploaded(); ++tries)
            upload();
        EXPECT_TRUE(uploaded()) << node->state()["post state"];
        Records missing = whole;
        for (const lab::CloudRecord &record : home->lab.cloud().records(posts))
            if (lab::print_json(lab::JsonTree(cJSON_Parse(record.payload.c_str())).get()) ==
                whole[record.eid])
                missing.erase(record.eid);
        EXPECT_EQ(missing, Records());
        expect_key();
    }
    // It is ready, or has said why it ended, and is when it starts again.
    void expect_started() {
        if (!node->daemon.running()) {
            EXPECT_GE(node->daemon.wait(0), 0) << node->read("/lab/daemon.log");
            EXPECT_NE(node->console(), "");
            node->start_daemon();
        }
        // A TLS library that found no memory when it was loaded has none until the next start.
        if (!wait([&] { return ready(); }) && node->daemon.running() &&
            node->log().find("SSL connect error") != std::string::npos) {
            EXPECT_EQ(node->daemon.stop(), 0) << node->read("/lab/daemon.log");
            node->start_daemon();
        }
        EXPECT_TRUE(wait([&] { return ready(); })) << node->log();
        expect_key();
        expect_packages();
    }
    void expect_killed() {
        EXPECT_EQ(node->daemon.wait(5000), -SIGKILL);
        expect_packages();
        start_daemon();
        EXPECT_TRUE(ready()) << node->log();
        expect_as_before();
    }

    FailOrder *order = nullptr;
    FailKind watched = FAIL_NOTHING; // calls, when that is said at the daemon's start
    long posts = 0;                  // before an upload
    std::unique_ptr<HomeLab> home;
    lab::LabNode *node = nullptr;
    // Sections at the start, before anything was recorded.
    std::map<std::string, size_t> packages = {{"/etc/config/telemetry", 0},
                                              {"/etc/config/telemetry_info", 0}};
    std::string info; // the package as it was before the first cycle
    Records whole;
};

constexpr Faults::Stretch kCycle = {&Faults::everything_to_report, &Faults::cycle, &Faults::expect_recovery};
// One reading of a file may have failed, which is then told as not there.
constexpr Faults::Stretch kRoughCycle = {&Faults::everything_to_report, &Faults::cycle,
                                         &Faults::expect_as_before};
constexpr Faults::Stretch kUpload = {&Faults::key_expired, &Faults::upload, &Faults::expect_uploaded};
constexpr Faults::Stretch kFirstStart = {&Faults::first_start, &Faults::start_daemon,
                                         &Faults::expect_started};

// What system calls fail with, each in a turn of its own.
#ifdef FAULTS_OF_LIBRARIES
constexpr FailKind kMemory = FAIL_MEMORY;
constexpr int32_t kErrors[] = {ENOSPC, EIO, EMFILE, EINTR, ENOMEM, kFailShort, kFailKill};
#else
// The originals have requests that they do not look at, and wait without limit for an answer that they did
// not get.
constexpr FailKind kMemory = FAIL_OWN_MEMORY;
constexpr int32_t kErrors[] = {kFailKill};
#endif

TEST_F(Faults, OfMemory) {
    start(FAIL_NOTHING);
    strike(kCycle, kMemory, 0, 4, 90);
    strike(kUpload, kMemory, 0, 1, 40);
    strike(kFirstStart, kMemory, 0, 2, 60);
}

TEST_F(Faults, OfCalls) {
#ifndef __x86_64__
    GTEST_SKIP() << "no calls are watched on this architecture";
#endif
    start(FAIL_CALLS);
    const char *only = getenv("FAULTS_ERROR");
    for (size_t i = 0; i < std::size(kErrors); ++i) {
        if (only != nullptr && atoi(only) != kErrors[i])
            continue;
        strike(kRoughCycle, FAIL_CALLS, kErrors[i], 1, 30 + 20 * static_cast<int>(i));
        if (only != nullptr || i % 3 == 0)
            strike(kUpload, FAIL_CALLS, kErrors[i], 1, 10 + 5 * static_cast<int>(i));
        if (only != nullptr || i % 3 == 1)
            strike(kFirstStart, FAIL_CALLS, kErrors[i], 1, 20 + 20 * static_cast<int>(i));
    }
}

} // namespace
