// The daemon as a process on a real bus: what an operator sees with the `ubus` command, and what happens to
// the daemon when the bus dies, comes back, or is replaced by something that only looks like a bus.
#include <algorithm>
#include <chrono>
#include <filesystem>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>

#include "lab.h"
#include "telemetry_handles.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

static constexpr int kPatienceMs = 20000;

// A try to connect again, in the log.
static constexpr char kFailed[] = "ubus reconnect failed";

static size_t count_descriptors(pid_t process) {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(process) + "/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// A node with its services and a cloud. The daemon's clock is moved, so that an absence of 30 s takes none.
class BusLossTest : public ::testing::Test {
  protected:
    BusLossTest() {
        node.advance_clock(0);
        lab.start();
        EXPECT_TRUE(node.wait_for_state("post state", lab::kReadyForUpload, kPatienceMs));
        // Each failed try to connect again is a line of this level.
        EXPECT_EQ(node.call("debug", R"({"level":"debug"})").status, 0);
        descriptors_ = count_descriptors(node.daemon.pid());
        methods_ = methods();
        EXPECT_THAT(methods_, StartsWith("\n\t\"collect_now\":{}\n\t\"post_now\":{}\n\t\"clear\":{}\n"
                                         "\t\"toggle_debug\":{}\n\t\"set_debug\":{}\n\t\"print\":{}\n"));
        EXPECT_THAT(methods_, HasSubstr("\n\t\"debug\":{\"level\":\"String\"}\n"
                                        "\t\"collect_device_info\":{\"ip_ap_addr\":\"String\"}\n"));
    }
    // The daemon is as it was, and ends normally while the bus is away, so that the sanitizers can speak.
    void TearDown() override {
        EXPECT_TRUE(lab::wait_until([&] { return count_descriptors(node.daemon.pid()) == descriptors_; },
                                    kPatienceMs))
            << count_descriptors(node.daemon.pid()) << " descriptors, " << descriptors_ << " at first";
        kill_bus();
        EXPECT_TRUE(wait_for_lines("ubus connection is lost", 1));
        EXPECT_EQ(node.daemon.stop(), 0) << node.read("/lab/daemon.log");
    }

    // As an operator sees them, without the object's id, which each bus gives anew.
    std::string methods() {
        const std::string list =
            lab::run_command({TEST_BIN_DIR "/ubus", "-s", node.bus_socket(), "list", "-v", "telemetry"}, {},
                             kPatienceMs)
                .out;
        return list.substr(std::min(list.size(), list.find('\n')));
    }
    size_t lines_since_loss(const char *text) {
        return node.count_in_console(text, console_at_loss_);
    }
    bool wait_for_lines(const char *text, size_t count) {
        return lab::wait_until([&] { return lines_since_loss(text) >= count; }, kPatienceMs);
    }
    void kill_bus() {
        console_at_loss_ = node.console_length();
        lost_at_ = std::chrono::steady_clock::now();
        node.bus.kill();
    }
    void start_bus() {
        node.start_bus();
        node.start_services();
    }
    // From the kill on: the bus is away for that long, and within one tick of its return the daemon is back.
    void expect_return_after(int absence_s) {
        if (absence_s == 0)
            start_bus();
        ASSERT_TRUE(wait_for_lines("ubus connection is lost", 1));
        int moved_ms = 0;
        while (absence_s > 0 && moved_ms < absence_s * 1000) {
            // One try at the loss, then one a tick.
            ASSERT_TRUE(wait_for_lines(kFailed, 1 + static_cast<size_t>(moved_ms / 2000)));
            const int step_ms = std::min(2000, absence_s * 1000 - moved_ms);
            node.advance_clock(step_ms);
            moved_ms += step_ms;
        }
        if (absence_s > 0)
            start_bus();
        node.advance_clock(2000);
        ASSERT_TRUE(wait_for_lines("ubus connection is back", 1));
        EXPECT_EQ(methods(), methods_);
        const auto waited =
            std::chrono::steady_clock::now() - lost_at_ + std::chrono::milliseconds(moved_ms + 2000);
        EXPECT_LE(lines_since_loss(kFailed), 1 + static_cast<size_t>(waited / std::chrono::seconds(2)));
        ASSERT_TRUE(node.wait_for_object("sync", kPatienceMs));
        node.advance_clock(1000); // a connection that is lost again at once would not be tried at once
    }
    void expect_collection(long collect_count) {
        EXPECT_TRUE(node.wait_for_state("collect_count", std::to_string(collect_count), kPatienceMs));
    }

    lab::Lab lab;
    lab::LabNode &node = lab.node();
    size_t descriptors_ = 0;
    std::string methods_;
    size_t console_at_loss_ = 0;
    std::chrono::steady_clock::time_point lost_at_;
};

static constexpr int kAbsencesS[] = {0, 7};

// A service that never answers holds the daemon in a call that would last many seconds.
TEST_F(BusLossTest, ACallThatWaitsEndsWithTheBusAndTheNextCollectionIsWhole) {
    long collections = 0;
    for (const int absence_s : kAbsencesS) {
        SCOPED_TRACE(absence_s);
        node.set_faults(R"({"sync":{"kind":"silent"}})");
        ASSERT_EQ(node.call("collect_now").status, 0);
        // An answer that does not come shows that the daemon is held.
        ASSERT_TRUE(lab::wait_until(
            [&] { return node.call("collect_all_next_time", "{}", 1).status == UBUS_STATUS_TIMEOUT; },
            kPatienceMs));
        node.set_faults("{}");
        kill_bus();
        ASSERT_NO_FATAL_FAILURE(expect_return_after(absence_s));
        EXPECT_EQ(lines_since_loss("ubus_invoke failed"), 1u);
        expect_collection(++collections);
    }
    const size_t before = node.console_length();
    node.advance_clock(node.number("collect_interval_strategy1"));
    expect_collection(collections + 1);
    EXPECT_EQ(node.count_in_console("ubus_invoke failed", before), 0U);
    EXPECT_GT(node.number("data_collect_count"), 0);
}

// Something at the bus's path that accepts connections and then misbehaves.
class FakeBus {
  public:
    explicit FakeBus(const std::string &path) : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        copy_text(address.sun_path, path.c_str());
        unlink(path.c_str());
        if (bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
            listen(listener_.get(), 8) != 0)
            abort();
    }
    // The next connection, or -1 when the daemon does not try again.
    int accept_one(int patience_ms = kPatienceMs) const {
        pollfd ready = {listener_.get(), POLLIN, 0};
        return poll(&ready, 1, patience_ms) == 1 ? accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)
                                                 : -1;
    }

  private:
    FdHandle listener_;
};

static const std::string hello("\0\0\0\0\0\1\2\3\0\0\0\4", 12);

TEST_F(BusLossTest, AnObjectThatWasTakenByHalfIsRegisteredAnew) {
    {
        const FakeBus fake(node.bus_socket());
        kill_bus();
        const FdHandle fd(fake.accept_one());
        send(fd.get(), hello.data(), hello.size(), MSG_NOSIGNAL);
        char request[4096];
        ASSERT_GT(recv(fd.get(), request, sizeof(request), 0), 4);
        // DATA with the request's number: attributes OBJID and OBJTYPE. No STATUS.
        std::string answer("\0\2\0\0\0\0\0\0\0\0\0\x14\3\0\0\x8\0\0\7\1\5\0\0\x8\0\0\7\2", 28);
        answer.replace(2, 2, request + 2, 2);
        send(fd.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    }
    node.start_bus();
    EXPECT_TRUE(lab::wait_until(
        [&] {
            node.advance_clock(2000);
            return methods() == methods_;
        },
        kPatienceMs));
}

TEST_F(BusLossTest, NeitherHangsNorSpinsOnABusThatMisbehaves) {
    struct Case {
        const char *name;
        std::string bytes;
        bool stays_open, reads_request;
        int limit_ms; // that the daemon gives it; 0: it sees at once that this is no bus
    };
    const Case cases[] = {
        {"greets and closes", hello, false, false, 0},
        {"talks nonsense", std::string(4096, '\xff'), true, false, 0},
        {"never greets", "", true, false, 3000},
        {"closes instead of taking the object", hello, false, true, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        {
            std::vector<std::unique_ptr<FdHandle>> open;
            const FakeBus fake(node.bus_socket());
            kill_bus();
            for (int connection = 0; connection < 2; ++connection) {
                auto fd = std::make_unique<FdHandle>(fake.accept_one());
                ASSERT_TRUE(fd->valid()) << "connection " << connection;
                char request[4096];
                if (!c.bytes.empty())
                    send(fd->get(), c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL);
                if (c.reads_request) {
                    EXPECT_GT(recv(fd->get(), request, sizeof(request), 0), 4);
                }
                // Half of a message makes the daemon look at its clock; more than once when it began to wait
                // only after the clock had been moved.
                const size_t failures = 1 + static_cast<size_t>(connection);
                const auto failed = [&] { return lines_since_loss(kFailed) >= failures; };
                for (int tries = 0; c.limit_ms > 0 && tries < 10 && !lab::wait_until(failed, 500); ++tries) {
                    node.advance_clock(c.limit_ms);
                    send(fd->get(), hello.data(), 1, MSG_NOSIGNAL);
                }
                if (c.stays_open)
                    open.push_back(std::move(fd));
                fd.reset();
                ASSERT_TRUE(wait_for_lines(kFailed, failures));
                // The next try is the timer's.
                EXPECT_EQ(fake.accept_one(300), -1);
                node.advance_clock(2000);
            }
            ASSERT_TRUE(FdHandle(fake.accept_one()).valid());
            ASSERT_TRUE(wait_for_lines(kFailed, 3));
        }
        node.start_bus(); // without services, which would connect to the next false bus
        node.advance_clock(2000);
        ASSERT_TRUE(wait_for_lines("ubus connection is back", 1));
        EXPECT_EQ(methods(), methods_);
        node.advance_clock(1000);
    }
}
