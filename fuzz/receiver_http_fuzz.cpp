// A request's head as it comes to the receiver. The rules hold for whatever the parser takes: what it read,
// printed again, reads the same.
#include <cstdint>
#include <string>

#include "receiver_http.h"
#include "support/fuzz_target.h"

static std::string print_head(const HttpRequest &request) {
    std::string text = request.method + " " + request.path;
    if (!request.query.empty())
        text += "?" + request.query;
    text += request.keeps ? " HTTP/1.1" : " HTTP/1.0";
    for (const auto &[name, value] : request.headers)
        text.append("\r\n").append(name).append(": ").append(value);
    return text;
}

static void run_head(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    HttpRequest request;
    if (const int status = http_parse_head(input.substr(0, input.find("\r\n\r\n")), request); status != 0) {
        require(status == 400 || status == 411 || status == 431 || status == 505);
        return;
    }
    require(!request.method.empty() && request.path.starts_with('/') && request.headers.size() <= 64);
    require(request.body_size < 1000000000000);
    HttpRequest again;
    require(http_parse_head(print_head(request), again) == 0);
    require(again.method == request.method && again.path == request.path && again.query == request.query);
    require(again.headers == request.headers && again.body_size == request.body_size &&
            again.keeps == request.keeps && again.expects == request.expects);
    require(request.parameter("from").size() <= request.query.size());
    const HttpAnswer answer = {.body = request.header("host"), .headers = request.headers};
    require(http_print(answer, request.keeps, true).ends_with("\r\n\r\n" + answer.body));
}

static const FuzzTargets registered({{"receiver_http", run_head}});
