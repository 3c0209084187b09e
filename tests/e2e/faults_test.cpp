// One failure at a time of what the main node's daemon asks for, memory or a system call, where none has
// failed yet: in a cycle with everything to report, in an upload whose key has expired, and at its start with
// key and strategy to get.
//
// FAULTS=N strikes the first N places instead of a few spread ones and goes on after a failure; FAULTS=0 all.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <tuple>
#include <sys/mman.h>

#include "../../lab/fakefail/fail_order.h"
#include "home_lab.h"

namespace {

using Records = std::map<std::string, std::string>; // payloads by record

struct Fault {
    const char *name;
    FailKind kind;
    int32_t error; // of a call
};

// What the daemon is made to do, from where, and what must hold when memory or a call failed meanwhile.
struct Faults;
struct Stretch {
    const char *name;
    void (Faults::*prepare)();
    void (Faults::*run)();
    void (Faults::*look_memory)();
    void (Faults::*look_calls)();
    int places, step; // so many are struck, each the so manieth
};
[[maybe_unused]] void PrintTo(const Stretch &stretch, std::ostream *out) {
    *out << stretch.name;
}
[[maybe_unused]] void PrintTo(const Fault &fault, std::ostream *out) {
    *out << fault.name;
}

struct Faults : ::testing::TestWithParam<std::tuple<Stretch, Fault>> {
    // One lab for all, unless something is not as it should be.
    void SetUp() override {
        if (home)
            return;
        home =
            std::make_unique<HomeLab>(R"({"sync": {"own_limit_ms": 20}})", "home", [&](lab::LabNode &main) {
                lab::write_file(main.fail_file(), std::string(sizeof(FailOrder), '\0'));
                const int fd = open(main.fail_file().c_str(), O_RDWR | O_CLOEXEC);
                order = static_cast<FailOrder *>(
                    mmap(nullptr, sizeof(FailOrder), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
                close(fd);
                ASSERT_NE(order, MAP_FAILED);
                order->kind = FAIL_CALLS;
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
        // Here what was not given back is seen, before the next sweep kills.
        EXPECT_EQ(node->daemon.stop(), 0)
            << node->console(std::max<size_t>(node->console_length(), 4000) - 4000);
        unsetenv("LSAN_OPTIONS");
        start_daemon();
        if (HasFailure())
            TearDownTestSuite();
    }
    static void TearDownTestSuite() {
        if (!home)
            return;
        order->at = 0;
        EXPECT_EQ(home->stop(), "");
        munmap(order, sizeof(FailOrder));
        home.reset();
    }

    // Strikes a stretch at each of its places, or at some that lie apart.
    void strike(const Stretch &stretch, const Fault &fault) {
        const char *wanted = getenv("FAULTS");
        const int most = wanted == nullptr ? stretch.places : atoi(wanted) == 0 ? INT_MAX : atoi(wanted);
        order->step = wanted == nullptr ? stretch.step : 1;
        int done = 0, none = 0; // in a row without a place that is new
        while (done < most && none < 3 && (!HasFailure() || wanted != nullptr)) {
            (this->*stretch.prepare)();
            order->seen = order->hit = 0;
            order->unseen = 1;
            order->error = fault.error;
            order->kind = fault.kind;
            order->at = kFailUnseen;
            console_before = node->console_length();
            log_before = node->read("/lab/daemon.log").size();
            (this->*stretch.run)();
            order->at = 0;
            order->kind = FAIL_CALLS; // for one that starts
            ASSERT_GE(order->hit, 0) << "no calls are watched";
            const bool struck = order->hit != 0;
            none = struck ? 0 : none + 1;
            done += struck ? 1 : 0;
            SCOPED_TRACE(struck ? where() : "nothing failed");
            if (struck && fault.error == kFailKill)
                expect_killed();
            else
                (this->*(fault.kind == FAIL_CALLS ? stretch.look_calls : stretch.look_memory))();
            if (!node->daemon.running())
                start_daemon();
        }
        printf("%d places\n", done);
        EXPECT_GE(done, wanted == nullptr ? stretch.places : 1) << "struck of " << order->seen;
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
    // What telemetry.status tells; null when the daemon does not answer.
    lab::JsonTree status() const {
        return std::move(node->call_object("telemetry.status", "get", "{}", 2).json);
    }
    static int64_t figure(const lab::JsonTree &status, const char *table, const char *name) {
        const cJSON *value = cJSON_GetObjectItem(cJSON_GetObjectItem(status.get(), table), name);
        return cJSON_IsNumber(value) ? static_cast<int64_t>(value->valuedouble) : -1;
    }
    static bool idle(const lab::JsonTree &status) {
        const cJSON *requests = cJSON_GetObjectItem(status.get(), "requests");
        return cJSON_IsNumber(requests) && requests->valuedouble == 0;
    }
    // Moves the daemon's clock until the status is as wanted: as fast as it answers, slower while a transfer
    // is under way, whose time-out should not come from a busy machine.
    bool wait(const std::function<bool(const lab::JsonTree &)> &done) const {
        int64_t moved = 0;
        for (int tries = 0; tries < 300 && moved < 180000 && node->daemon.running(); ++tries) {
            const lab::JsonTree now = status();
            if (done(now))
                return true;
            const int64_t step =
                idle(now) ? std::clamp<int64_t>(figure(now, "next", "retry_ms"), 500, 60000) : 100;
            node->advance_clock(step);
            moved += step;
            if (!idle(now))
                usleep(4000 + 50 * tries);
        }
        return false;
    }
    // A cycle ends, when it comes about at all.
    void cycle() {
        node->call("collect_now", "{}", 2);
        wait([](const lab::JsonTree &now) { return figure(now, "next", "collect_ms") > 60000; });
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
    bool uploaded(const lab::JsonTree &now) const {
        return figure(now, "list", "items") == 0 && home->lab.cloud().count("posts") > posts;
    }
    static bool given_up(const lab::JsonTree &now) {
        return idle(now) && figure(now, "next", "retry_ms") == -1 && figure(now, "next", "upload_ms") > 60000;
    }
    void upload() {
        node->call("post_now", "{}", 2);
        wait([&](const lab::JsonTree &now) { return uploaded(now) || given_up(now); });
    }
    // No key and no strategy is there, and the daemon does not run.
    void first_start() {
        if (std::get<1>(GetParam()).kind != FAIL_CALLS)
            setenv("LSAN_OPTIONS", "suppressions='" TEST_SOURCE_DIR "/tests/e2e/first_start.leaks'", 1);
        EXPECT_EQ(node->daemon.stop(), 0) << node->read("/lab/daemon.log") << node->log();
        for (const char *option : {"accessKey", "accessSecret", "accessDevice"})
            node->set_config("telemetry", "cloud", option, "");
        for (const char *option : {"strategyID", "collect_interval", "collect_interval_2", "post_interval"})
            node->set_config("telemetry", "strategy", option, "");
    }
    void start_daemon() {
        node->start_daemon();
        wait(ready);
    }
    static bool ready(const lab::JsonTree &now) {
        return figure(now, "next", "collect_ms") >= 0 && lab::json_text(now.get(), "state") == "ready";
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
        for (int tries = 0; tries < 3 && !uploaded(status()); ++tries)
            upload();
        EXPECT_TRUE(uploaded(status())) << node->state()["post state"];
        Records missing = whole;
        for (const lab::CloudRecord &record : home->lab.cloud().records(posts)) {
            const auto sent = whole.find(record.eid);
            EXPECT_EQ(lab::print_json(lab::JsonTree(cJSON_Parse(record.payload.c_str())).get()),
                      sent == whole.end() ? "nothing" : sent->second)
                << record.eid;
            missing.erase(record.eid);
        }
        EXPECT_EQ(missing, Records());
        expect_key();
    }
    // Since the stretch began, one of these; before the daemon opens the console, to its log.
    bool has_said(std::initializer_list<const char *> texts) const {
        const std::string said =
            node->console(console_before) + node->read("/lab/daemon.log").substr(log_before);
        return std::any_of(texts.begin(), texts.end(),
                           [&](const char *text) { return said.find(text) != said.npos; });
    }
    // It is ready, or has said why it ended, and is when it starts again.
    void expect_started() {
        if (!node->daemon.running()) {
            EXPECT_EQ(node->daemon.wait(0), 0) << node->read("/lab/daemon.log");
            EXPECT_TRUE(has_said({"telemetry_init_ctx error, stop", "start ended by"})) << node->log();
            node->start_daemon();
        }
        // A TLS library that found no memory when it was loaded has none until the next start, and who cannot
        // read the configuration asks the cloud that is built in.
        if (!wait(ready) && node->daemon.running() &&
            has_said({"curl failed! code: 27", "curl failed! code: 35", "uci_get_value buffer error"})) {
            EXPECT_EQ(node->daemon.stop(), 0) << node->read("/lab/daemon.log");
            node->start_daemon();
        }
        EXPECT_TRUE(wait(ready)) << node->log();
        expect_key();
        expect_packages();
    }
    void expect_killed() {
        EXPECT_EQ(node->daemon.wait(5000), -SIGKILL);
        expect_packages();
        start_daemon();
        EXPECT_TRUE(ready(status())) << node->log();
        expect_as_before();
    }

    static inline std::unique_ptr<HomeLab> home;
    static inline FailOrder *order;
    static inline lab::LabNode *node;
    // Sections at the start, before anything was recorded.
    static inline std::map<std::string, size_t> packages = {{"/etc/config/telemetry", 0},
                                                            {"/etc/config/telemetry_info", 0}};
    static inline std::string info; // the package as it was before the first cycle
    static inline Records whole;
    long posts = 0;                            // before an upload
    size_t console_before = 0, log_before = 0; // their lengths, before a stretch
};

// After a call that failed one reading of a file may be missing, which is then told as not there.
constexpr Stretch kStretches[] = {
    {"cycle", &Faults::everything_to_report, &Faults::cycle, &Faults::expect_recovery,
     &Faults::expect_as_before, 13, 36},
    {"upload", &Faults::key_expired, &Faults::upload, &Faults::expect_uploaded, &Faults::expect_uploaded, 4,
     25},
    {"start", &Faults::first_start, &Faults::start_daemon, &Faults::expect_started, &Faults::expect_started,
     8, 20},
};

#ifdef FAULTS_OF_LIBRARIES
constexpr Fault kFaults[] = {
    {"memory", FAIL_MEMORY, 0},        {"ENOSPC", FAIL_CALLS, ENOSPC}, {"EIO", FAIL_CALLS, EIO},
    {"killed", FAIL_CALLS, kFailKill}, // the longest, here in a shard with one cycle only
    {"EMFILE", FAIL_CALLS, EMFILE},    {"EINTR", FAIL_CALLS, EINTR},   {"ENOMEM", FAIL_CALLS, ENOMEM},
    {"half", FAIL_CALLS, kFailShort},
};
#else
// What the daemon's own code asks for, and libcrypto through it: the originals have requests that they do not
// look at, and wait without limit for an answer that they did not get.
constexpr Fault kFaults[] = {{"memory", FAIL_OWN_MEMORY, 0}, {"killed", FAIL_CALLS, kFailKill}};
#endif

TEST_P(Faults, OneAtATime) {
    const auto &[stretch, fault] = GetParam();
#ifndef __x86_64__
    if (fault.kind == FAIL_CALLS)
        GTEST_SKIP() << "no calls are watched on this architecture";
#endif
    strike(stretch, fault);
}

INSTANTIATE_TEST_SUITE_P(Home, Faults,
                         ::testing::Combine(::testing::ValuesIn(kStretches), ::testing::ValuesIn(kFaults)),
                         [](const auto &row) {
                             return std::get<0>(row.param).name + std::string("_") +
                                    std::get<1>(row.param).name;
                         });

} // namespace
