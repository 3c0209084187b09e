// HTTP/1.1 as the receiver needs it: requests with a Content-Length, answers that are whole texts. Everything
// a client sends is bounded before it is kept.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct HttpRequest {
    std::string method, path, query; // path and query as they came, not decoded
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    size_t body_size = 0; // announced
    bool keeps = true;    // the client takes another answer on this connection
    bool expects = false; // waits for "100 Continue" before it sends the body
    // First value of a header, "" when absent; names in any case.
    std::string header(std::string_view name) const;
    // Value of a parameter of the query, decoded; "" when absent.
    std::string parameter(std::string_view name) const;
};

struct HttpAnswer {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers = {};
    bool cut = false;     // the connection ends without a byte
    int drip_ms = 0;      // between two bytes of it
    size_t announced = 0; // Content-Length instead of the body's, when larger: the connection ends before it
};

// Takes the head (up to and without the empty line) apart: 0, or the status to refuse it with.
int http_parse_head(std::string_view head, HttpRequest &request);
// Bytes to send.
std::string http_print(const HttpAnswer &answer, bool keeps, bool with_body);
