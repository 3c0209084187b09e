#include "telemetry_main.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "restart_info.h"
#include "telemetry_ca.h"
#include "telemetry_collect.h"
#include "telemetry_command.h"
#include "telemetry_figures.h"
#include "telemetry_guarded.h"
#include "telemetry_handles.h"
#include "telemetry_key_owner.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_post.h"
#include "telemetry_reload.h"
#include "telemetry_repeat.h"
#include "telemetry_ubus.h"
#include "telemetry_uci.h"
#include "telemetry_uci_package.h"
#include "telemetry_utils.h"
#include "wlan_platform.h"

// Room for an option's value, terminator included.
static constexpr int kOptionSize = 2048;
static constexpr int kAccessTextSize = 128;
static constexpr int kIdentitySize = 65;

// --- Output and heartbeat ---

// A descriptor 0 to 2 that the starter left closed would go to the next socket or file that is opened, and
// whatever is printed would be written into it.
static void fill_standard_descriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

static constexpr char kDefaultPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";

int telemetry_redirect_output(const char *path) {
    if (path == nullptr || *path == '\0') {
        LOG_ERROR("param error");
        return -1;
    }
    const std::string target = telemetry_path(path);
    // A stream whose reopening fails is closed: try the path first, so that the message still has a way out.
    const FdHandle probe(open(target.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666));
    if (!probe.valid() || freopen(target.c_str(), "a", stderr) == nullptr ||
        freopen(target.c_str(), "a", stdout) == nullptr) {
        fprintf(stderr, "Failed to redirect stdout/stderr to %s: %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

void telemetry_create_heartbeat_timeout_file() {
    const std::string path = telemetry_path(kHeartbeatTimeoutPath);
    if (telemetry_file_exists(kHeartbeatTimeoutPath)) {
        // Whatever stands there, such as a pipe that nobody reads, does not hold the start.
        if (telemetry_write_number_file(kHeartbeatTimeoutPath, 0) != 0)
            LOG_ERROR("init %s failed", kHeartbeatTimeoutPath);
        return;
    }
    const FdHandle file(open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0777));
    if (!file.valid() || write(file.get(), "0", 1) != 1)
        LOG_ERROR("init %s failed", kHeartbeatTimeoutPath);
}

void telemetry_remove_heartbeat_timeout_file() {
    if (!telemetry_file_exists(kHeartbeatTimeoutPath))
        return;
    const std::string path = telemetry_path(kHeartbeatTimeoutPath);
    const char *const remove[] = {"rm", path.c_str(), nullptr};
    int status = 0;
    if (telemetry_command_run(remove, kCommandLimitMs, nullptr, &status) != TELEMETRY_COMMAND_ENDED ||
        status != 0)
        LOG_ERROR("remove %s failed", kHeartbeatTimeoutPath);
}

// --- Options that may change while the daemon runs ---

void telemetry_load_options() {
    const TelemetryUciScope scope; // the package is read once
    telemetry_load_log_options();
    telemetry_load_ca_file();
    wlan_load_driver();
}

static bool package_is_readable() {
    char text[8];
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {"telemetry"});
    return uci && uci_get_value(uci.get(), "telemetry", "basic", "enable", text, sizeof(text)) != -1;
}

void telemetry_reload(TelemetryCtx *ctx) {
    telemetry_repeat_forget(); // what is still missing is news again
    // Without the option the level is the start's again, whatever an order over the bus made of it.
    telemetry_debug_level = TELEMETRY_LOG_INFO;
    // The defaults of a package that somebody is writing would send the records elsewhere.
    if (!package_is_readable()) {
        LOG_ERROR("package telemetry cannot be read: all else stays as it was read before");
        return;
    }
    telemetry_load_options();
    telemetry_load_cloud_url(ctx);
    LOG_INFO("configuration read again, uploads go to %.256s", ctx->post_api);
}

// --- Steps of telemetry_init_ctx ---

int telemetry_init_collect_param(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    memset(ctx, 0, sizeof(*ctx));
    ctx->post_state = TELEMETRY_POST_STATE_INIT;
    return 0;
}

int telemetry_init_tmp_backup_config() {
    if (!telemetry_file_exists(kBackupConfigDir)) {
        mkdir(telemetry_path(kBackupConfigDir).c_str(), 0777);
        if (!telemetry_file_exists(kBackupConfigDir)) {
            LOG_ERROR("mkdir %s failed", kBackupConfigDir);
            return -1;
        }
    }
    if (telemetry_file_exists(kBackupConfigFile))
        return 0;
    const FilePtr file(fopen(telemetry_path(kBackupConfigFile).c_str(), "w+e"));
    if (file == nullptr) {
        LOG_ERROR("create %s failed", kBackupConfigFile);
        return -1;
    }
    return 0;
}

struct AccessTextOption {
    const char *section;
    const char *option;
    char (TelemetryCtx::*field)[129];
    const char *missing; // message
    const char *name;    // of the debug line
};

static constexpr AccessTextOption kAccessTextOptions[] = {
    {"cloud", "accessKey", &TelemetryCtx::access_key, "uci_get_value access_key error", "access_key"},
    {"cloud", "accessSecret", &TelemetryCtx::access_secret, "uci_get_value access_secret error",
     "access_secret"},
    {"strategy", "strategyID", &TelemetryCtx::strategy_id, "uci_get_value startegyId error", "strategyId"},
};

struct IntervalOption {
    const char *option;
    uint32_t TelemetryCtx::*field;
    uint32_t fallback; // ms
    const char *missing;
    const char *name;
};

static constexpr IntervalOption kIntervalOptions[] = {
    {"collect_interval", &TelemetryCtx::collect_interval_strategy1, kDefaultCollectInterval1Ms,
     "uci_get_value collect_interval error", "collect_interval_strategy1"},
    {"collect_interval_2", &TelemetryCtx::collect_interval_strategy2, kDefaultCollectInterval2Ms,
     "uci_get_value collect_interval error", "collect_interval_strategy2"},
    {"post_interval", &TelemetryCtx::post_interval, kDefaultPostIntervalMs,
     "uci_get_value post_interval error", "post_interval"},
};

static int read_option(const char *section, const char *option, char *buffer, int size) {
    return telemetry_get_uci_value("telemetry", section, option, buffer, size, TELEMETRY_UCI_SYSTEM);
}

void telemetry_load_cloud_url(TelemetryCtx *ctx) {
    char url[kOptionSize + 4] = {}; // a character more than counts, to see whether any is cut
    if (read_option("cloud", "cloud_url", url, sizeof(url)) != 0) {
        LOG_ERROR("uci_get_value buffer error");
        copy_text(ctx->post_api, TELEMETRY_CLOUD_ENDPOINT);
    } else {
        const bool cut = strlen(url) >= kOptionSize;
        url[kOptionSize - 1] = '\0';
        const std::string full = (strncmp(url, "http", 4) == 0 ? "" : "https://") + std::string(url);
        copy_text(ctx->post_api, full.c_str());
        if (cut || full.size() > strlen(ctx->post_api))
            LOG_ERROR("cloud_url has room for %zu characters, the rest is cut off", strlen(ctx->post_api));
    }
    if (strncmp(ctx->post_api, "https://", 8) != 0)
        LOG_ERROR("cloud_url is not https: the access key and all records travel in the clear: %.256s",
                  ctx->post_api);
    LOG_DEBUG("post_api:%s", ctx->post_api);
}

static void load_access_text(TelemetryCtx *ctx, const AccessTextOption &row) {
    char text[kAccessTextSize] = {};
    if (read_option(row.section, row.option, text, sizeof(text)) != 0)
        LOG_ERROR("%s", row.missing);
    copy_text(ctx->*row.field, text);
    LOG_DEBUG("%s:%s", row.name, ctx->*row.field);
}

static void load_interval(TelemetryCtx *ctx, const IntervalOption &row) {
    char text[kOptionSize] = {};
    if (read_option("strategy", row.option, text, sizeof(text)) != 0) {
        LOG_ERROR("%s", row.missing);
        ctx->*row.field = row.fallback;
    } else {
        const int32_t minutes = telemetry_text_to_int(text);
        if (minutes < 1 || minutes > static_cast<int32_t>(INT32_MAX / kMinuteMs))
            LOG_ERROR("%s is not a usable number of minutes: %.32s", row.option, text);
        ctx->*row.field = static_cast<uint32_t>(minutes) * kMinuteMs;
    }
    LOG_DEBUG("%s:%d", row.name, static_cast<int>(ctx->*row.field));
}

int telemetry_load_uci_config(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciScope scope; // the package is read once
    telemetry_load_cloud_url(ctx);
    for (const AccessTextOption &row : kAccessTextOptions)
        load_access_text(ctx, row);
    for (const IntervalOption &row : kIntervalOptions)
        load_interval(ctx, row);
    ctx->collect_interval_periodic = kPeriodicCollectIntervalMs;
    return 0;
}

// --- Log options ---

// The flag's value; `fallback` when the option is missing, or holds what is none, with a line.
static bool read_log_flag(const char *option, bool fallback) {
    char text[kOptionSize] = {};
    if (read_option("basic", option, text, sizeof(text)) != 0)
        return fallback;
    const int flag = telemetry_flag_of_word(text);
    if (flag < 0)
        LOG_ERROR("telemetry.basic.%s is neither on nor off: %.32s", option, text);
    return flag < 0 ? fallback : flag == 1;
}

void telemetry_load_log_options() {
    const bool console = read_log_flag("log_console", true);
    const bool syslog = read_log_flag("log_syslog", true);
    char name[kOptionSize] = {};
    if (read_option("basic", "log_level", name, sizeof(name)) == 0 &&
        !telemetry_log_level_by_name(name, &telemetry_debug_level))
        LOG_ERROR("telemetry.basic.log_level is none of debug, info, error: %.32s", name);
    // Last, so that the lines above are not lost.
    telemetry_log_console = console;
    telemetry_log_syslog = syslog;
}

struct IdentityCommand {
    const char *command;
    char (TelemetryCtx::*field)[kIdentitySize];
    const char *failed; // message
};

// The last one goes through mac_to_format, and has the message of the one before it.
static constexpr IdentityCommand kIdentityCommands[] = {
    {"getfirm DEV_ID", &TelemetryCtx::dev_id, "shell_get_value dev_id error"},
    {"getfirm HW_ID", &TelemetryCtx::hw_id, "shell_get_value hw_id error"},
    {"getfirm HARDVERSION", &TelemetryCtx::hw_version, "shell_get_value hw_version error"},
    {"getfirm OEM_ID", &TelemetryCtx::oem_id, "shell_get_value oem_id error"},
    {"getfirm SOFTVERSION", &TelemetryCtx::firmware, "shell_get_value firm_version error"},
    {"getfirm MODEL", &TelemetryCtx::model, "shell_get_value device_model error"},
    {"getfirm MAC", &TelemetryCtx::dev_mac, "shell_get_value device_model error"},
};

static bool is_plain_ascii(const char *text) {
    for (; *text != '\0'; text++)
        if (static_cast<signed char>(*text) < ' ' || *text == 0x7f)
            return false;
    return true;
}

// Runs one command. Whatever it prints is kept, terminated inside `text`; what is no identity gets a line.
static int read_identity(const IdentityCommand &row, char (&text)[kIdentitySize]) {
    if (shell_get_value(row.command, text, kIdentitySize) != 0) {
        LOG_ERROR("%s", row.failed);
        text[0] = '\0';
        return -1;
    }
    if (text[kIdentitySize - 1] != '\0') {
        text[whole_characters(text, kIdentitySize - 1)] = '\0';
        LOG_ERROR("%s prints more than %d characters", row.command, kIdentitySize - 1);
    }
    if (text[0] == '\0')
        LOG_ERROR("%s prints nothing", row.command);
    if (!is_plain_ascii(text))
        LOG_ERROR("%s prints bytes that are no plain text", row.command);
    return 0;
}

int telemetry_get_device_info(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    int result = 0;
    for (const IdentityCommand &row : kIdentityCommands) {
        char text[kIdentitySize];
        if (read_identity(row, text) != 0)
            result = -1;
        else if (row.field == &TelemetryCtx::dev_mac)
            mac_to_format(ctx->dev_mac, text);
        else
            copy_text(ctx->*row.field, text);
    }
    return result;
}

int telemetry_init_timers(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    ctx->collect_timer.cb = telemetry_collect_data;
    ctx->post_timer.cb = telemetry_post_data;
    telemetry_arm_collect_timer(ctx, ctx->collect_interval_strategy1);
    return 0;
}

// --- The whole ---

struct InitStep {
    int (*run)(TelemetryCtx *ctx);
    const char *failed; // message
};

static constexpr InitStep kInitSteps[] = {
    {telemetry_init_collect_param, "telemetry_init_collect_param error"},
    {[](TelemetryCtx *) { return telemetry_init_tmp_backup_config(); },
     "telemetry_init_tmp_backup_config error"},
    {telemetry_init_post_request, "telemetry_init_post_request error"},
    {telemetry_load_uci_config, "telemetry_load_uci_config error"},
    {telemetry_get_device_info, "telemetry_get_device_info error"},
    {telemetry_init_timers, "telemetry_init_tmp_backup_config error"},
};

int telemetry_init_ctx(TelemetryCtx *ctx) {
    if (ctx == nullptr) {
        LOG_ERROR("param error");
        return -2;
    }
    for (const InitStep &step : kInitSteps) {
        if (telemetry_guarded("start", -1, [&] { return step.run(ctx); }) != 0) {
            LOG_ERROR("%s", step.failed);
            return -2;
        }
    }
    return 0;
}

// Signals that end the loop wait until it runs: its start forgets those that came before. The mask is the
// process's own again with the loop's first timer, or with the scope.
class EndSignalsHeld {
  public:
    EndSignalsHeld() {
        sigemptyset(&held_);
        sigaddset(&held_, SIGTERM);
        sigaddset(&held_, SIGINT);
        sigprocmask(SIG_BLOCK, &held_, &before_);
    }
    ~EndSignalsHeld() {
        release();
    }
    EndSignalsHeld(const EndSignalsHeld &) = delete;
    EndSignalsHeld &operator=(const EndSignalsHeld &) = delete;

    // Runs a step that may wait without limit: a signal ends the wait, and is known by uloop_cancelled.
    template <typename Step> int let_through(Step step) {
        release();
        const int result = uloop_cancelled ? -1 : step();
        sigprocmask(SIG_BLOCK, &held_, nullptr);
        return result;
    }

    void release_in_loop() {
        timer_.cb = [](uloop_timeout *) { release(); };
        uloop_timeout_set(&timer_, 0);
    }

  private:
    static void release() {
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
    inline static sigset_t before_;
    sigset_t held_;
    uloop_timeout timer_ = {};
};

static void end_loop() {
    uloop_done();
    telemetry_free_ubus();
    telemetry_guarded("end", telemetry_remove_heartbeat_timeout_file);
}

static void start_and_run(TelemetryCtx *ctx) {
    EndSignalsHeld signals;
    telemetry_create_heartbeat_timeout_file();
    uloop_init();
    bool initialised = telemetry_init_ctx(ctx) == 0;
    const bool main_node = initialised && check_if_device_is_FAP() != 0;
    if (main_node && telemetry_memory_failures() == 0) // a satellite signs and sends nothing
        telemetry_crypto_prepare(telemetry_post_uses_libcrypto());
    if (telemetry_memory_failures() != 0) {
        // Options may have been missed, or methods of libcrypto: whoever starts daemons tries again.
        LOG_ERROR("no memory for the start");
        initialised = false;
    }
    if (initialised) {
        telemetry_check_key_owner(ctx);
        telemetry_count_daemon_start();
    }
    uloop_cancelled = false;
    const bool connected = initialised && signals.let_through([&] { return telemetry_init_ubus(ctx); }) == 0;
    if (uloop_cancelled) {
        end_loop();
        return;
    }
    if (!connected) {
        LOG_ERROR("telemetry_init_ctx error, stop");
        return;
    }
    LOG_INFO("telemetry %s on the %s node, uploads go to %.256s", TELEMETRY_VERSION,
             main_node ? "main" : "satellite", ctx->post_api);
    signals.release_in_loop();
    telemetry_watch_reload(ctx, telemetry_reload);
    telemetry_post_state_FSM(ctx);
    uloop_run();

    telemetry_unwatch_reload();
    end_loop();
}

// Not on the stack, so that its slots and list stay reachable until the process is gone.
static TelemetryCtx telemetry_ctx;

int main() {
    memset(&telemetry_ctx, 0, sizeof(telemetry_ctx));
    telemetry_memory_keep_small();
    fill_standard_descriptors();
    telemetry_catch_reload_signal();
    setenv("PATH", kDefaultPath, 0); // the commands stand in the system's folders, too
    telemetry_guarded("start", [] { telemetry_redirect_output(kConsolePath); });
    telemetry_log_open_syslog();
    telemetry_memory_watch();
    telemetry_figures_start();
    LOG_DEBUG("telemetry start");
    telemetry_guarded("start", [] {
        telemetry_load_options();
        start_and_run(&telemetry_ctx);
    });
    LOG_DEBUG("telemetry end");
    return 0;
}
