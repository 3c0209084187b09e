#include "receiver_http.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace {

constexpr size_t kMaxHeaders = 64;

struct StatusText {
    int status;
    const char *text;
};
constexpr std::array<StatusText, 14> kStatusTexts = {{{200, "OK"},
                                                      {304, "Not Modified"},
                                                      {400, "Bad Request"},
                                                      {403, "Forbidden"},
                                                      {404, "Not Found"},
                                                      {405, "Method Not Allowed"},
                                                      {408, "Request Timeout"},
                                                      {411, "Length Required"},
                                                      {413, "Content Too Large"},
                                                      {431, "Request Header Fields Too Large"},
                                                      {500, "Internal Server Error"},
                                                      {501, "Not Implemented"},
                                                      {503, "Service Unavailable"},
                                                      {505, "HTTP Version Not Supported"}}};

bool same_name(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return tolower(x) == tolower(y); });
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// The text up to `end`, which it loses together with it.
std::string_view take_until(std::string_view &text, std::string_view end) {
    const size_t at = text.find(end);
    const std::string_view taken = text.substr(0, at);
    text.remove_prefix(at == text.npos ? text.size() : at + end.size());
    return taken;
}

// A lone line feed ends a line for some readers and not for others; a NUL ends a text.
bool has_control(std::string_view line) {
    return std::any_of(line.begin(), line.end(),
                       [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7f; });
}

int hex_value(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

std::string decoded(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        const bool coded = text[i] == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
                           hex_value(text[i + 2]) >= 0;
        out += coded            ? static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]))
               : text[i] == '+' ? ' '
                                : text[i];
        i += coded ? 2 : 0;
    }
    return out;
}

int parse_request_line(std::string_view line, HttpRequest &request) {
    if (has_control(line))
        return 400;
    request.method = take_until(line, " ");
    std::string_view target = take_until(line, " ");
    if (request.method.empty() || target.empty() || target.front() != '/')
        return 400;
    request.path = take_until(target, "?");
    request.query = target;
    if (line != "HTTP/1.1" && line != "HTTP/1.0")
        return line.starts_with("HTTP/") ? 505 : 400;
    request.keeps = line == "HTTP/1.1";
    return 0;
}

int parse_length(const HttpRequest &request, std::string_view text, size_t &size) {
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != text.npos)
        return 400;
    const auto value = static_cast<size_t>(
        std::min<unsigned long long>(std::stoull(std::string(text)), SIZE_MAX)); // refused as too long, then
    // Two lengths that differ are an attempt to say two things to two readers.
    const auto same = [](const auto &header) { return same_name(header.first, "Content-Length"); };
    if (std::count_if(request.headers.begin(), request.headers.end(), same) > 1 && value != size)
        return 400;
    size = value;
    return 0;
}

} // namespace

std::string HttpRequest::header(std::string_view name) const {
    for (const auto &[key, value] : headers) {
        if (same_name(key, name))
            return value;
    }
    return "";
}

std::string HttpRequest::parameter(std::string_view name) const {
    std::string_view rest = query;
    while (!rest.empty()) {
        std::string_view value = take_until(rest, "&");
        if (take_until(value, "=") == name)
            return decoded(value);
    }
    return "";
}

int http_parse_head(std::string_view head, HttpRequest &request) {
    const int wrong = parse_request_line(take_until(head, "\r\n"), request);
    if (wrong)
        return wrong;
    while (!head.empty()) {
        std::string_view line = take_until(head, "\r\n");
        const size_t colon = line.find(':');
        // A blank in front of the colon, or a continued line, is read in more than one way elsewhere.
        if (colon == line.npos || colon == 0 || line.find_first_of(" \t") < colon || has_control(line))
            return 400;
        if (request.headers.size() >= kMaxHeaders)
            return 431;
        const std::string_view name = line.substr(0, colon), value = trimmed(line.substr(colon + 1));
        request.headers.emplace_back(name, value);
        if (same_name(name, "Transfer-Encoding"))
            return 411;
        if (same_name(name, "Content-Length")) {
            if (const int status = parse_length(request, value, request.body_size))
                return status;
        }
        if (same_name(name, "Connection"))
            request.keeps = !same_name(value, "close") && (request.keeps || same_name(value, "keep-alive"));
        request.expects = request.expects || (same_name(name, "Expect") && same_name(value, "100-continue"));
    }
    return 0;
}

std::string http_print(const HttpAnswer &answer, bool keeps, bool with_body) {
    const auto found = std::find_if(kStatusTexts.begin(), kStatusTexts.end(),
                                    [&](const StatusText &entry) { return entry.status == answer.status; });
    std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " " +
                       (found == kStatusTexts.end() ? "Status" : found->text) + "\r\n";
    text += "Content-Type: " + answer.type +
            "\r\nContent-Length: " + std::to_string(std::max(answer.announced, answer.body.size())) + "\r\n";
    for (const auto &[name, value] : answer.headers)
        text.append(name).append(": ").append(value).append("\r\n");
    text += keeps ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    return with_body ? text + answer.body : text;
}
