#include "telemetry_command.h"

#include <poll.h>
#include <regex.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "sysroot.h"
#include "telemetry_utils.h"

using Words = std::vector<std::string>;

// Stands before the C library's: the clock leaps by seconds whenever somebody looks.
static time_t leap;

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    static time_t ahead;
    const long result = syscall(SYS_clock_gettime, clock, now);
    now->tv_sec += ahead += leap;
    return static_cast<int>(result);
}

static int pipe_fails, poll_fails; // errno

extern "C" int pipe2(int *ends, int flags) noexcept {
    errno = pipe_fails;
    return pipe_fails != 0 ? -1 : static_cast<int>(syscall(SYS_pipe2, ends, flags));
}
extern "C" int poll(pollfd *ends, nfds_t count, int timeout_ms) {
    errno = poll_fails;
    return poll_fails != 0 && count > 0 ? -1 : static_cast<int>(syscall(SYS_poll, ends, count, timeout_ms));
}

class TelemetryCommand : public SysrootTest {
  protected:
    // Runs words and gives what they print.
    int run(const Words &words, int limit_ms = kCommandLimitMs) {
        std::vector<const char *> argv;
        for (const std::string &word : words)
            argv.push_back(word.c_str());
        argv.push_back(nullptr);
        char text[512];
        const TelemetryCommandOutput output = {TELEMETRY_READ_ALL, text, sizeof(text)};
        const int result = telemetry_command_run(argv.data(), limit_ms, &output, &status);
        printed.assign(text, sizeof(text));
        return result;
    }
    int status = -1;
    std::string printed;
};

// Whatever a name, an address, an interface or a path may hold.
static const Words kHostile = {"",
                               " a  b ",
                               "it's \"quoted\"",
                               "line\nend\r",
                               "$(touch ran)",
                               "`touch ran`; touch ran & touch ran | touch ran > ran",
                               "${HOME} * ? [a] ~ \\ # !",
                               "-c",
                               "\xff\x80\x01"};

TEST_F(TelemetryCommand, WordsArriveAsTheyAre) {
    std::string expected;
    for (const std::string &word : kHostile)
        expected += word + '\0';
    expected.resize(512);
    Words words = {"show"};
    words.insert(words.end(), kHostile.begin(), kHostile.end());
    root.add_command("show", "printf '%s\\0' \"$@\"");
    EXPECT_EQ(run(words), TELEMETRY_COMMAND_ENDED);
    EXPECT_EQ(printed, expected);
    // A script without its first line, by its path.
    root.write("/bin/show", "printf '%s\\0' \"$@\"\n");
    words[0] = root.path("/bin/show");
    EXPECT_EQ(run(words), TELEMETRY_COMMAND_ENDED);
    EXPECT_EQ(printed, expected);
    // Where a value from outside becomes a word, it is none of these.
    char delay[128];
    for (const std::string &host : kHostile)
        EXPECT_EQ(telemetry_ping_delay_v4(delay, host.c_str()), -1) << host;
}

TEST_F(TelemetryCommand, EndsAtItsLimitWithItsChildren) {
    int held[2]; // open as long as one of them lives
    ASSERT_EQ(pipe(held), 0);
    root.add_command("hang", "echo early\ncase $1 in quiet) exec >/dev/null;; esac\nsleep 1000 & sleep 1000");
    for (const char *how : {"quiet", "with its output open"}) {
        EXPECT_EQ(run({"hang", how}, 200), TELEMETRY_COMMAND_TOO_LONG);
        EXPECT_STREQ(printed.c_str(), "early\n");
    }
    EXPECT_EQ(telemetry_commands_killed(), 2u);
    close(held[1]);
    char byte;
    EXPECT_EQ(read(held[0], &byte, 1), 0);
    close(held[0]);
    // More than anybody reads ends without waiting for it.
    EXPECT_EQ(run({"yes"}), TELEMETRY_COMMAND_ENDED);
    EXPECT_EQ(status, SIGPIPE);
    expect_logged(TELEMETRY_COMMAND_ENDED, {"nothing-here cannot be run: No such file or directory"},
                  [&] { return run({"nothing-here"}); });
    EXPECT_EQ(WEXITSTATUS(status), 127);
}

// A device id that is not there for want of a pipe is none that is empty.
TEST_F(TelemetryCommand, WhatCannotBeStartedOrReadPrintsNotNothing) {
    for (int *fails : {&pipe_fails, &poll_fails}) {
        *fails = EIO;
        expect_logged(TELEMETRY_COMMAND_NOT_STARTED, {"error: popen exe [sleep 1000] failed"}, [&] {
            return run({"sleep", "1000"});
        });
        *fails = 0;
    }
    EXPECT_EQ(waitid(P_ALL, 0, nullptr, WEXITED | WNOHANG), -1);
}

// What does not end in time after its kill is taken note of with a later command.
TEST_F(TelemetryCommand, LeavesNoneBehindWhenTheClockLeaps) {
    root.add_command("hang", "sleep 1000");
    leap = 10;
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(run({"hang"}, 200), TELEMETRY_COMMAND_TOO_LONG);
    leap = 0;
    siginfo_t child = {};
    for (int i = 0; i < 1000 && waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0; i++) {
        usleep(10000);
        EXPECT_EQ(run({"true"}), TELEMETRY_COMMAND_ENDED);
    }
    EXPECT_EQ(waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT), -1);
}

// The one place that starts programs is telemetry_command.
TEST_F(TelemetryCommand, NobodyElseStartsPrograms) {
    regex_t starts;
    ASSERT_EQ(
        regcomp(&starts,
                "(^|[^[:alnum:]_.>])(popen|system|v?fork|clone|exec[lv]p?e?|posix_spawnp?|wordexp) *[(]",
                REG_EXTENDED | REG_NOSUB),
        0);
    Words found;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(TEST_SOURCE_DIR "/telemetry")) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);)
            if (line.find("//") == line.npos && regexec(&starts, line.c_str(), 0, nullptr, 0) == 0)
                found.push_back(entry.path().filename().string());
    }
    regfree(&starts);
    EXPECT_EQ(found, Words{"telemetry_command.cpp"});
}
