// lab-runner: a mesh on this machine, from a scenario.
//   lab-runner [--scenario NAME|FILE] [--once] [--day [--cycles N] | --load | --cloud URL --ca FILE]
// Without --once it stays up, follows the main node's log and ends on Ctrl-C. With it, it forces one
// collection and one upload, prints what the cloud received, the verdict and the mesh as the records tell it;
// exit status 0 only when everything was as it should be. With --cloud the daemon speaks with that service,
// and what the service answered is all that is known of the upload.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "day.h"
#include "lab.h"
#include "load.h"
#include "report.h"
#include "summary.h"

namespace {

constexpr int kReadyMs = 60000;
// A cycle measures the processor for three seconds, and may wait for each of several services.
constexpr int kCycleMs = 180000;
constexpr int kUploadMs = 20000;
constexpr size_t kLogTail = 4000;
constexpr char kStartWish[] = "/lab/start"; // made by who wants the ended daemon of a node again

struct Options {
    std::string scenario = "one";
    bool once = false;
    bool day = false;         // a day first, on clocks that the runner moves
    long cycles = kDayCycles; // of it
    bool load = false;        // as much as a node may meet, then the end
    lab::OtherCloud cloud;
};

void on_signal(int) {
    lab::interrupt_waits();
}

// The first signal ends the lab in order, a second one at once.
void catch_signals() {
    struct sigaction action = {};
    action.sa_handler = on_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        sigaction(number, &action, nullptr);
}

bool parse_options(int argc, char **argv, Options &options) {
    for (int i = 1; i < argc; i++) {
        std::string argument = argv[i];
        if (argument == "--once")
            options.once = true;
        else if (argument == "--day")
            options.day = true;
        else if (argument == "--load")
            options.load = true;
        else if (argument == "--scenario" && i + 1 < argc)
            options.scenario = argv[++i];
        else if (argument == "--cycles" && i + 1 < argc)
            options.cycles = strtol(argv[++i], nullptr, 10);
        else if (argument == "--cloud" && i + 1 < argc)
            options.cloud.url = argv[++i];
        else if (argument == "--ca" && i + 1 < argc)
            options.cloud.authority = argv[++i];
        else
            return false;
    }
    // The day is told by what the lab's own cloud counts.
    const bool other = !options.cloud.url.empty();
    return other != options.cloud.authority.empty() && !(other && (options.day || options.load)) &&
           options.cycles > 0 && options.cycles <= kDayCycles;
}

[[noreturn]] void fail(lab::Lab &lab, const std::string &what) {
    std::string log = lab.node().log();
    if (log.size() > kLogTail)
        log = "..." + log.substr(log.size() - kLogTail);
    throw std::runtime_error(what + "\nlog of the main node:\n" + log + lab.node().read("/lab/daemon.log"));
}

void require_status(lab::Lab &lab, const char *method) {
    lab::BusReply reply = lab.node().call(method);
    if (reply.status != 0 || lab::json_number(reply.json.get(), "err_code", -1) != 0)
        fail(lab, std::string("the bus method ") + method + " failed: status " +
                      std::to_string(reply.status) + " " + reply.text);
}

long number_of(const std::map<std::string, std::string> &state, const char *line) {
    auto found = state.find(line);
    return found == state.end() ? -1 : strtol(found->second.c_str(), nullptr, 10);
}

void collect_once(lab::Lab &lab) {
    lab::LabNode &node = lab.node();
    long before = number_of(node.state(), "collect_count");
    require_status(lab, "collect_all_next_time");
    require_status(lab, "collect_now");
    long after = before, items = 0;
    bool collected = lab::wait_until(
        [&] {
            auto state = node.state();
            after = number_of(state, "collect_count");
            items = number_of(state, "data_collect_count");
            return !node.daemon.running() || after > before;
        },
        kCycleMs);
    if (!node.daemon.running())
        fail(lab, "the daemon ended while it collected");
    if (!collected)
        fail(lab, "no collection cycle ended within " + std::to_string(kCycleMs / 1000) + " s");
    if (items <= 0)
        fail(lab, "the collection cycle brought nothing");
    printf("collected %ld items in one cycle\n", items);
}

void upload_once(lab::Lab &lab) {
    long posts = lab.cloud().count("posts");
    require_status(lab, "post_now");
    if (!lab.cloud().wait_for_count("posts", posts + 1, kUploadMs)) {
        std::string seen;
        for (const lab::CloudRequest &request : lab.cloud().requests())
            seen += "\n  " + request.call + ": " + request.verdict + ", error_code " +
                    std::to_string(request.error_code);
        fail(lab, "the cloud accepted no upload; it saw:" + (seen.empty() ? " nothing" : seen));
    }
    if (!lab.node().wait_for_state("data_collect_count", "0", 5000))
        fail(lab, "the cloud accepted the upload, but the daemon still holds its records");
}

void require_ready(lab::Lab &lab) {
    if (!lab.node().wait_for_state("post state", lab::kReadyForUpload, kReadyMs))
        fail(lab, "key and strategy were not fetched: post state " + lab.node().state()["post state"]);
}

void stop_daemons(lab::Lab &lab) {
    for (size_t index = 0; index < lab.node_count(); index++) {
        int status = lab.node(index).daemon.stop();
        if (status != 0)
            fail(lab, "the daemon of node " + std::to_string(index) + " ended with status " +
                          std::to_string(status));
    }
}

// The records go only when the service answered that it took them.
void run_once_elsewhere(lab::Lab &lab) {
    require_ready(lab);
    collect_once(lab);
    const long held = number_of(lab.node().state(), "data_collect_count");
    require_status(lab, "post_now");
    if (!lab.node().wait_for_state("data_collect_count", "0", kUploadMs))
        fail(lab, "the cloud accepted no upload");
    stop_daemons(lab);
    printf("uploaded %ld items, all signatures valid: the cloud accepted them\n", held);
}

void run_once(lab::Lab &lab) {
    require_ready(lab);
    collect_once(lab);
    upload_once(lab);

    std::vector<lab::CloudRecord> records = lab.cloud().records();
    long posts = lab.cloud().count("posts");
    long invalid = lab.cloud().count("invalid_signatures");
    const lab::BusReply told = lab.node().call_object("telemetry.status", "get");
    printf("\n%s\n", report_records(records, lab.scenario()).c_str());
    if (invalid != 0)
        fail(lab, std::to_string(invalid) + " requests came without a valid signature");
    if (records.empty())
        fail(lab, "the upload held no record");
    stop_daemons(lab);
    printf("uploaded %zu records in %ld posts, all signatures valid\n", records.size(), posts);
    printf("%s", left_behind_text(told.json.get(), records).c_str());
    printf("\nThe mesh, as the cloud now knows it\n%s", summary_text(records).c_str());
}

// What makes the lab's own cloud misbehave, and shows what arrived.
void print_orders(lab::Lab &lab) {
    const std::string orders = lab.cloud().orders();
    for (const char *order : {"down", "up", "expire_keys", "reset"})
        printf("  curl -d '' %s%s\n", orders.c_str(), order);
    printf(
        "  curl -d '{\"call\":\"upload\",\"steps\":[{\"kind\":\"error_code\",\"code\":-10306}]}' %sscript\n",
        orders.c_str());
    printf("  curl -d '{\"id\":\"s-2\",\"content\":\"collect_interval_strategy1=1,"
           "collect_interval_strategy2=60,post_interval=5\"}' %sstrategy\n",
           orders.c_str());
    printf("  curl %scounts\n", orders.c_str());
    printf("  sqlite3 %s 'select eid, payload from records'\n", lab.cloud().database().c_str());
}

void print_help(lab::Lab &lab, const lab::OtherCloud &other) {
    lab::LabNode &node = lab.node();
    std::string ubus = lab::default_bin_dir() + "/ubus -s " + node.bus_socket();
    const bool own = other.url.empty();
    printf("The lab is up: %zu nodes in %s, the cloud at %s\n", lab.node_count(), lab.directory().c_str(),
           own ? ("https://" + lab.cloud().address()).c_str() : other.url.c_str());
    if (own)
        printf("What it received, as a page: %s\n", lab.cloud().page().c_str());
    printf("Bus of the main node: %s\n\n", node.bus_socket().c_str());
    for (size_t index = 1; index < lab.node_count(); index++)
        printf("Bus of satellite %zu: %s\n", index, lab.node(index).bus_socket().c_str());
    printf("  %s call telemetry debug '{\"level\":\"debug\"}'\n", ubus.c_str());
    printf("  %s subscribe telemetry.status\n", ubus.c_str());
    for (const char *wish :
         {"call telemetry.status get", "call telemetry print", "call telemetry collect_all_next_time",
          "call telemetry collect_now", "call telemetry post_now"})
        printf("  %s %s\n", ubus.c_str(), wish);
    if (own)
        print_orders(lab);
    const std::string root = node.root();
    printf("  tail -f %s/var/log/messages\n", root.c_str());
    printf("  kill -9 $(cat %s/lab/daemon.pid); touch %s/lab/start\n\n", root.c_str(), root.c_str());
    printf("The main node's log follows; Ctrl-C ends the lab.\n");
}

std::string end_of(int exit) {
    return exit < 0 ? "signal " + std::to_string(-exit) : "status " + std::to_string(exit);
}

// Tells of daemons that have ended, once each, and starts those that somebody wants again.
class DaemonWatch {
  public:
    explicit DaemonWatch(lab::Lab &lab) : lab_(lab), told_(lab.node_count()) {}
    void look() {
        for (size_t index = 0; index < told_.size(); index++) {
            lab::LabNode &node = lab_.node(index);
            if (node.daemon.running())
                continue;
            if (!told_[index])
                printf("the daemon of node %zu has ended with %s; touch %s%s starts it again\n", index,
                       end_of(node.daemon.wait(0)).c_str(), node.root().c_str(), kStartWish);
            told_[index] = !node.exists(kStartWish);
            if (told_[index])
                continue;
            node.remove(kStartWish);
            node.start_daemon();
            printf("the daemon of node %zu is started again\n", index);
        }
    }

  private:
    lab::Lab &lab_;
    std::vector<bool> told_;
};

// Copies the log to the terminal until a signal comes.
void follow(lab::Lab &lab) {
    size_t shown = 0;
    DaemonWatch watch(lab);
    lab::wait_until(
        [&] {
            std::string news = lab.node().console(shown);
            fwrite(news.data(), 1, news.size(), stdout);
            fflush(stdout);
            shown += news.size();
            watch.look();
            usleep(200000);
            return false;
        },
        INT32_MAX);
}

void run(Options &options) {
    lab::OtherCloud &other = options.cloud;
    if (!other.url.empty()) {
        const std::string file = other.authority;
        other.authority = lab::read_file(file);
        if (other.authority.empty())
            throw std::runtime_error("cannot read " + file);
    }
    lab::Lab lab(lab::scenario_load(options.scenario), lab::default_bin_dir(), other);
    if (options.day)
        day_prepare(lab, options.cycles);
    if (options.load)
        load_prepare(lab);
    lab.start();
    printf("lab \"%s\" is up: %zu nodes, %zu clients, all daemons on their buses\n",
           lab.scenario().name.c_str(), lab.node_count(), lab.scenario().clients.size());
    fflush(stdout);
    if (options.day) {
        require_ready(lab);
        day_run(lab, options.cycles);
    }
    if (options.load) {
        load_run(lab);
    } else if (options.once) {
        other.url.empty() ? run_once(lab) : run_once_elsewhere(lab);
    } else {
        print_help(lab, other);
        follow(lab);
    }
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    if (!parse_options(argc, argv, options)) {
        fprintf(stderr, "usage: lab-runner [--scenario NAME|FILE] [--once] [--day [--cycles N] | --load | "
                        "--cloud URL --ca FILE]\n");
        return 2;
    }
    catch_signals();
    try {
        run(options);
    } catch (const std::exception &error) {
        fflush(stdout);
        if (!options.once && std::string(error.what()) == "interrupted") {
            printf("\nthe lab has ended\n");
            return 0;
        }
        fprintf(stderr, "lab-runner: %s\n", error.what());
        return 1;
    }
    return 0;
}
