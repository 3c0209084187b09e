// The daemon as a process on a real bus: what an operator sees with the `ubus` command, and what happens to
// the daemon when the bus dies, comes back, or is replaced by something that only looks like a bus.
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "sysroot.h"
#include "telemetry_paths.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

static constexpr int kPatienceMs = 20000;

struct CommandResult {
    int status = -1;
    std::string output; // standard output and error
};

static CommandResult run_command(const std::string &command) {
    CommandResult result;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    char block[4096];
    for (size_t n; (n = fread(block, 1, sizeof(block), pipe)) > 0;)
        result.output.append(block, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

template <typename Condition> static bool wait_until(Condition condition) {
    for (int waited = 0; waited < kPatienceMs; waited += 20) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

class BusTest : public SysrootTest {
  protected:
    BusTest() : bus(root.path(kBusSocketPath)) {
        root.add_command("getfirm", "case $1 in MAC) echo 0a:0b:0c:0d:0e:0f;; *) echo \"the $1\";; esac");
        daemon_ = fork();
        if (daemon_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl(TEST_BIN_DIR "/telemetry", "telemetry", nullptr);
            _exit(127);
        }
        EXPECT_EQ(ubus("-t 20 wait_for telemetry").status, 0);
    }
    // A daemon that a test did not end comes to its normal end, so that the sanitizers can speak.
    ~BusTest() override {
        EXPECT_EQ(end_daemon(), 0) << root.read(kConsolePath);
    }
    int end_daemon() {
        int status = 0;
        kill(daemon_, SIGTERM);
        waitpid(daemon_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + status;
    }
    CommandResult ubus(const std::string &arguments) {
        return run_command(TEST_BIN_DIR "/ubus -s " + bus.socket() + " " + arguments);
    }
    bool object_is_back() {
        return wait_until([&] { return ubus("-S call telemetry clear").output == "{\"err_code\":0}\n"; });
    }
    size_t descriptors_of_daemon() const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon_) + "/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    BusDaemon bus;
    pid_t daemon_ = -1;
};

TEST_F(BusTest, OperatorsSeeMethodsAnswersAndExitStatuses) {
    const CommandResult list = ubus("list -v telemetry");
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(list.output, StartsWith("'telemetry' @"));
    EXPECT_THAT(list.output, HasSubstr("\n\t\"collect_now\":{}\n\t\"post_now\":{}\n\t\"clear\":{}\n"
                                       "\t\"toggle_debug\":{}\n\t\"set_debug\":{}\n\t\"print\":{}\n"));
    EXPECT_THAT(list.output, HasSubstr("\n\t\"debug\":{\"level\":\"String\"}\n"
                                       "\t\"collect_device_info\":{\"ip_ap_addr\":\"String\"}\n"));

    struct Case {
        const char *arguments;
        int status;
        const char *output;
    };
    const Case cases[] = {
        {"call telemetry toggle_debug", 0, "{\n\t\"err_code\": 0\n}\n"},
        {"-S call telemetry toggle_debug", 0, "{\"err_code\":0}\n"},
        {"-S call telemetry debug '{\"level\":\"noise\"}'", 0, "{\"err_code\":0}\n"},
        {"call telemetry debug", 2, "Command failed: Invalid argument\n"},
        {"-S call telemetry set_debug '{\"level\":3}'", 2, ""},
        {"call telemetry nothing", 3, "Command failed: Method not found\n"},
        {"call telemetri clear", 4, "Command failed: Not found\n"},
        {"-S call telemetry collect_device_info '{\"ip_ap_addr\":\"a;b\"}'", 2, "{\"err_code\":-1}\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.arguments);
        const CommandResult result = ubus(c.arguments);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.output, c.output);
    }
}

TEST_F(BusTest, PrintGoesToTheConsole) {
    EXPECT_EQ(ubus("-S call telemetry print").output, "{\"err_code\":0}\n");
    const std::string console = root.read(kConsolePath);
    EXPECT_THAT(console, HasSubstr("): dev id: the DEV_ID\n"));
    EXPECT_THAT(console, HasSubstr("): dev mac: 0A0B0C0D0E0F\n"));
    EXPECT_THAT(console, HasSubstr("): [post request 7]\n"));
    EXPECT_THAT(console, HasSubstr("): -----------telemetry post end-----------\n"));
}

TEST_F(BusTest, SurvivesKilledBusesWithoutLosingMethodsOrDescriptors) {
    const size_t before = descriptors_of_daemon();
    const std::string methods = ubus("list -v telemetry | tail -n +2").output;
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        bus.kill();
        if (round % 3 == 2)
            std::this_thread::sleep_for(
                std::chrono::seconds(1)); // part of what is checked: a bus that is away
        bus.start();
        ASSERT_TRUE(object_is_back());
        EXPECT_EQ(ubus("list -v telemetry | tail -n +2").output, methods);
    }
    EXPECT_EQ(descriptors_of_daemon(), before);
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
    int accept_one() const {
        pollfd ready = {listener_.get(), POLLIN, 0};
        return poll(&ready, 1, kPatienceMs) == 1 ? accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)
                                                 : -1;
    }

  private:
    FdHandle listener_;
};

TEST_F(BusTest, NeitherHangsNorSpinsOnABusThatMisbehaves) {
    const std::string hello("\0\0\0\0\0\1\2\3\0\0\0\4", 12);
    struct Case {
        const char *name;
        std::string bytes;
        bool stays_open;
    };
    const Case cases[] = {
        {"closes at once", "", false},
        {"greets and closes", hello, false},
        {"talks nonsense", std::string(4096, '\xff'), true},
        {"greets, then nonsense", hello + std::string(4096, 'x'), true},
        {"never greets", "", true},
    };
    const size_t before = descriptors_of_daemon();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        {
            std::vector<std::unique_ptr<FdHandle>> open;
            const FakeBus fake(bus.socket());
            bus.kill();
            std::chrono::steady_clock::time_point first;
            for (int connection = 0; connection < 2; ++connection) {
                auto fd = std::make_unique<FdHandle>(fake.accept_one());
                ASSERT_TRUE(fd->valid()) << "connection " << connection;
                if (connection == 0)
                    first = std::chrono::steady_clock::now();
                if (!c.bytes.empty())
                    send(fd->get(), c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL);
                if (c.stays_open)
                    open.push_back(std::move(fd));
            }
            // The next try is the timer's.
            EXPECT_GE(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(1900));
        }
        bus.start();
        ASSERT_TRUE(object_is_back());
    }
    EXPECT_EQ(descriptors_of_daemon(), before);
}

TEST_F(BusTest, EndsNormallyWhileTheBusIsAway) {
    bus.kill();
    EXPECT_TRUE(wait_until(
        [&] { return root.read(kConsolePath).find("ubus connection is lost") != std::string::npos; }));
}
