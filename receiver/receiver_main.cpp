// telemetry-receiver: takes the uploads of telemetry daemons over signed HTTPS, keeps them, shows them.
#include <charconv>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>

#include "receiver_control.h"
#include "receiver_json.h"
#include "receiver_page.h"
#include "receiver_service.h"

using namespace receiver_json;

namespace {

struct Options {
    std::string dir = ".", store, devices, control, page;
    std::string strategy_id, strategy;
    ServiceOptions service = {};
    PageOptions shown = {};
};

constexpr char kUsage[] = R"(usage: telemetry-receiver [option]...
  --listen ADDR:PORT     where daemons call, HTTPS (127.0.0.1:0; port 0: a free one)
  --cert FILE --key FILE certificate with its chain, and key (PEM); without them an authority of its own is made, whose
                         certificate goes to DIR/ca.cer
  --dir DIR              for the files that it writes: ca.cer, port, page_port, control_port, receiver.db (.)
  --store WHERE          an SQLite file, or postgresql://... (DIR/receiver.db)
  --devices FILE         device ids that may ask for keys, one a line; "id key secret" makes that key known (any device)
  --strategy-id ID --strategy TEXT
                         strategy for devices that have none of their own in the store
  --max-skew SECONDS     largest distance of the signed time from ours; 0: not checked (900)
  --key-lifetime SECONDS age at which a key has to be replaced (86400)
  --keep-days DAYS       forget older uploads; 0: keep all (0)
  --connections N        at once; the one idle longest gives way (1024)
  --max-body BYTES       largest body (4194304)
  --max-memory BYTES     of all bodies and answers at once (134217728)
  --head-ms N --body-ms N
                         time for handshake and head, and for the body (10000, 30000)
  --page ADDR:PORT       page and /metrics, plain HTTP, for this machine or behind a proxy (none)
  --page-host NAME       name under which the page may be asked for, besides addresses and localhost
  --page-dir DIR         where the page's files are
  --strict               takes bodies only exactly as the daemon prints them
  --keep-requests        keeps every request, refused ones too
  --control ADDR:PORT    orders to misbehave, plain HTTP, for tests; with --keep-requests and a connection a request
)";

int64_t number_of(const std::string &text) {
    int64_t number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0)
        throw std::invalid_argument("not a number: " + text);
    return number;
}

bool take_text(Options &options, const std::string &name, const std::string &value) {
    const std::pair<const char *, std::string *> texts[] = {{"--listen", &options.service.listen},
                                                            {"--cert", &options.service.cert},
                                                            {"--key", &options.service.key},
                                                            {"--dir", &options.dir},
                                                            {"--store", &options.store},
                                                            {"--devices", &options.devices},
                                                            {"--strategy-id", &options.strategy_id},
                                                            {"--strategy", &options.strategy},
                                                            {"--page", &options.page},
                                                            {"--page-host", &options.shown.host},
                                                            {"--page-dir", &options.shown.directory},
                                                            {"--control", &options.control}};
    for (const auto &[known, text] : texts) {
        if (name == known) {
            *text = value;
            return true;
        }
    }
    return false;
}

bool take_number(Options &options, const std::string &name, const std::string &value) {
    ListenerLimits &limits = options.service.limits;
    const std::pair<const char *, int64_t *> numbers[] = {
        {"--max-skew", &options.service.api.max_skew},
        {"--key-lifetime", &options.service.api.key_lifetime},
        {"--keep-days", &options.service.keep_days}};
    for (const auto &[known, number] : numbers) {
        if (name == known) {
            *number = number_of(value);
            return true;
        }
    }
    const std::pair<const char *, size_t *> sizes[] = {{"--connections", &limits.connections},
                                                       {"--max-body", &limits.body_bytes},
                                                       {"--max-memory", &limits.total_bytes}};
    for (const auto &[known, size] : sizes) {
        if (name == known) {
            *size = static_cast<size_t>(number_of(value));
            return true;
        }
    }
    if (name != "--head-ms" && name != "--body-ms")
        return false;
    (name == "--head-ms" ? limits.head_ms : limits.body_ms) = static_cast<int>(number_of(value));
    return true;
}

// Installed, the page stands beside the program; a program of the build tree has that of the sources.
std::string page_directory() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto installed = program.parent_path().parent_path() / "share/telemetry-receiver";
    return std::filesystem::exists(installed / "index.html", error) ? installed.string() : RECEIVER_PAGE_DIR;
}

Options parse_options(int argc, char **argv) {
    Options options;
    options.shown.directory = page_directory();
    options.shown.plots = RECEIVER_PLOTS;
    for (int i = 1; i < argc; i++) {
        const std::string name = argv[i];
        if (name == "--strict")
            options.service.api.strict = true;
        else if (name == "--keep-requests")
            options.service.keep_requests = true;
        else if (i + 1 < argc &&
                 (take_text(options, name, argv[i + 1]) || take_number(options, name, argv[i + 1])))
            i++;
        else
            throw std::invalid_argument("unknown, or without its value: " + name);
    }
    if (options.service.cert.empty() != options.service.key.empty())
        throw std::invalid_argument("--cert and --key belong together");
    if (!options.control.empty()) {
        options.service.keep_requests = true;
        // Scripted certificates and refusals meet every request, not only the first of a connection.
        options.service.limits.keep_alive = false;
    }
    if (options.store.empty())
        options.store = options.dir + "/receiver.db";
    return options;
}

// "id" or "id key secret" a line; "#" begins a comment.
void read_devices(const std::string &file, ApiOptions &api, Store &store) {
    std::istringstream lines(read_file(file));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string id, key, secret;
        if (!(words >> id))
            continue;
        api.devices.insert(id);
        if (words >> key >> secret)
            store.add_key({key, secret, false, id, 0}, "");
    }
    if (api.devices.empty())
        throw std::runtime_error("no device in " + file);
}

std::unique_ptr<Listener> listen_plain(const std::string &address, Listener::Handler handler,
                                       size_t workers) {
    ListenerLimits limits;
    limits.connections = 128;
    limits.workers = workers;
    auto listener = std::make_unique<Listener>(std::move(handler), limits, nullptr);
    listener->start(address);
    return listener;
}

void write_port(const Options &options, const char *name, int port) {
    write_file(options.dir + "/" + name, std::to_string(port) + "\n");
}

void run(Options &options, const sigset_t &ends) {
    Certificates certificates;
    const bool has_own = options.service.cert.empty();
    if (has_own) {
        certificates = make_certificates();
        write_file(options.dir + "/ca.cer", certificate_text(certificates.authority.certificate.get()));
    }
    Store store(options.store, options.service.limits.workers);
    if (!options.devices.empty())
        read_devices(options.devices, options.service.api, store);
    if (!options.strategy_id.empty())
        store.set_strategy("", {options.strategy_id, options.strategy});
    Script script;
    Metrics metrics;
    Service service(options.service, store, metrics, script, has_own ? &certificates : nullptr);
    service.up();

    Control control(service, store, script);
    Page page(options.shown, store, metrics, [&service] { return service.metrics_text(); });
    std::unique_ptr<Listener> controlled, shown;
    if (!options.control.empty()) {
        controlled = listen_plain(
            options.control, [&](const HttpRequest &asked) { return control.serve(asked); }, 2);
        write_port(options, "control_port", controlled->port());
    }
    if (!options.page.empty()) {
        shown = listen_plain(
            options.page, [&](const HttpRequest &asked) { return page.serve(asked); }, 4);
        write_port(options, "page_port", shown->port());
        printf("page on port %d\n", shown->port());
    }
    write_port(options, "port", service.port());
    printf("serving on port %d\n", service.port());
    fflush(stdout);

    int number = 0;
    sigwait(&ends, &number);
}

} // namespace

int main(int argc, char **argv) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr); // inherited by every thread: only sigwait() takes them
    signal(SIGPIPE, SIG_IGN);
    try {
        Options options = parse_options(argc, argv);
        run(options, ends);
    } catch (const std::invalid_argument &error) {
        fprintf(stderr, "telemetry-receiver: %s\n%s", error.what(), kUsage);
        return 2;
    } catch (const std::exception &error) {
        fprintf(stderr, "telemetry-receiver: %s\n", error.what());
        return 1;
    }
    return 0;
}
