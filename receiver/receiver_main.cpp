// telemetry-receiver: the cloud service of the lab. Serves TLS on 127.0.0.1 and is driven over plain HTTP on
// a second port.
//   telemetry-receiver --dir DIR     ca.cer, cloud.db, port and control_port are written there; the last two
//   when it serves.
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <httplib.h>

#include "receiver_service.h"
#include "receiver_json.h"

namespace {

struct Cloud {
    Store &store;
    Script &script;
    Service &server;
};

// Carries out one order of the control interface; an empty text, or what is wrong with it.
std::string carry_out(Cloud &cloud, const std::string &order, const std::string &body) {
    JsonTree tree(cJSON_Parse(body.empty() ? "{}" : body.c_str()));
    if (!cJSON_IsObject(tree.get()))
        return "not a JSON object";
    if (order == "script")
        return cloud.script.append(tree.get());
    if (order == "reset")
        cloud.script.reset();
    else if (order == "expire_keys")
        cloud.server.expire_keys();
    else if (order == "add_key")
        cloud.server.add_key(
            {json_text(tree.get(), "access_key"), json_text(tree.get(), "access_secret"), false});
    else if (order == "strategy")
        cloud.server.set_strategy({json_text(tree.get(), "id"), json_text(tree.get(), "content")});
    else if (order == "down")
        cloud.server.down();
    else if (order == "up")
        cloud.server.up(cloud.server.port());
    else
        return "unknown order " + order;
    return "";
}

void serve_control(httplib::Server &control, Cloud &cloud) {
    control.Get("/counts", [&cloud](const httplib::Request &, httplib::Response &response) {
        response.set_content(cloud.server.counts(), "application/json");
    });
    control.Post("/(.+)", [&cloud](const httplib::Request &request, httplib::Response &response) {
        std::string wrong = carry_out(cloud, request.matches[1], request.body);
        if (!wrong.empty())
            response.status = 400;
        response.set_content(wrong, "text/plain");
    });
}

void run(const std::string &directory, const sigset_t &ends) {
    Certificates certificates = make_certificates();
    write_file(directory + "/ca.cer", certificate_text(certificates.authority.certificate.get()));
    Store store(directory + "/cloud.db");
    Script script;
    Service server(store, script, certificates);
    server.up(0);

    Cloud cloud = {store, script, server};
    httplib::Server control;
    serve_control(control, cloud);
    int control_port = control.bind_to_any_port("127.0.0.1");
    if (control_port <= 0)
        throw std::runtime_error("the control interface cannot listen on 127.0.0.1");
    std::thread control_thread([&control] { control.listen_after_bind(); });
    while (!control.is_running())
        std::this_thread::yield();
    write_file(directory + "/control_port", std::to_string(control_port) + "\n");
    write_file(directory + "/port", std::to_string(server.port()) + "\n");

    int number = 0;
    sigwait(&ends, &number);
    control.stop();
    control_thread.join();
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3 || std::string(argv[1]) != "--dir") {
        fprintf(stderr, "usage: telemetry-receiver --dir DIR\n");
        return 2;
    }
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr); // inherited by every thread: only sigwait() takes them
    signal(SIGPIPE, SIG_IGN);
    try {
        run(argv[2], ends);
    } catch (const std::exception &error) {
        fprintf(stderr, "telemetry-receiver: %s\n", error.what());
        return 1;
    }
    return 0;
}
