// syslog for a process of the lab: lines go to a file of its root.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <syslog.h>
#include <unistd.h>

static std::string ident = "unknown";
static int default_facility = LOG_USER;

static constexpr const char *kPriorities[] = {"emerg",   "alert",  "crit", "err",
                                              "warning", "notice", "info", "debug"};

// What the daemon starts needs none of the preloaded libraries, and starts faster without them.
__attribute__((constructor)) static void keep_to_the_daemon() {
    unsetenv("LD_PRELOAD");
}

static const char *facility_name(int facility) {
    return facility == LOG_DAEMON ? "daemon" : facility == LOG_USER ? "user" : "other";
}

static void write_line(int priority, const char *format, va_list arguments) {
    const char *root = getenv("TELEMETRY_SYSROOT");
    if (root == nullptr)
        return;
    const int file = open((std::string(root) + "/var/log/messages").c_str(),
                          O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0)
        return;
    char text[2048];
    vsnprintf(text, sizeof(text), format, arguments);
    const int facility = (priority & LOG_FACMASK) != 0 ? priority & LOG_FACMASK : default_facility;
    const std::string line = std::string(facility_name(facility)) + "." + kPriorities[LOG_PRI(priority)] +
                             " " + ident + ": " + text + "\n";
    if (write(file, line.data(), line.size()) < 0)
        perror("fakelog");
    close(file);
}

extern "C" {
void openlog(const char *name, int, int facility) {
    ident = name != nullptr ? name : "unknown";
    default_facility = facility;
}

void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(priority, format, arguments);
    va_end(arguments);
}

// What a fortified build calls.
void __syslog_chk(int priority, int, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_line(priority, format, arguments);
    va_end(arguments);
}
}
