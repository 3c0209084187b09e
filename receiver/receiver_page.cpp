#include "receiver_page.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <arpa/inet.h>

#include "receiver_json.h"

using namespace receiver_json;

namespace {

// What one answer may hold.
constexpr const char *kMaxMeshes = "500";
constexpr const char *kMaxRecords = "100";
constexpr const char *kMaxMonitored = "200"; // meshes whose figures /metrics tells
constexpr size_t kMaxPoints = 400;
constexpr size_t kMaxSeriesBytes = 8 << 20;
constexpr const char *kMaxScanned = "20000";

struct PageFile {
    const char *path, *name, *type;
};
constexpr std::array<PageFile, 7> kFiles = {
    {{"/icon.svg", "icon.svg", "image/svg+xml"},
     {"/", "index.html", "text/html; charset=utf-8"},
     {"/page.js", "page.js", "text/javascript; charset=utf-8"},
     {"/picture.js", "picture.js", "text/javascript; charset=utf-8"},
     {"/plots.js", "plots.js", "text/javascript; charset=utf-8"},
     {"/elements.js", "elements.js", "text/javascript; charset=utf-8"},
     {"/page.css", "page.css", "text/css; charset=utf-8"}}};

const std::vector<std::pair<std::string, std::string>> kHeaders = {
    {"Content-Security-Policy",
     "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; object-src 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"},
};

// A number of the query as a number again: nothing else reaches a statement.
int64_t number_of(const HttpRequest &request, const char *name, int64_t fallback) {
    const std::string text = request.parameter(name);
    return text.empty() ? fallback : strtoll(text.c_str(), nullptr, 10);
}

// An address or "localhost" cannot be another site's name for this machine.
bool is_own_host(std::string host, const std::string &known) {
    if (!host.starts_with('['))
        host = host.substr(0, host.find(':'));
    else
        host = host.substr(1, host.find(']') - 1);
    unsigned char address[16];
    return host == "localhost" || (!known.empty() && host == known) ||
           inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// [{"name":..., ...}, ...]: names in front of "#" are numbers.
std::string rows_json(const SqlRows &rows, const std::vector<std::string> &names) {
    std::string out = "[";
    for (const SqlRow &row : rows) {
        out += out.size() > 1 ? ",{" : "{";
        for (size_t i = 0; i < names.size(); i++) {
            const bool is_number = names[i].starts_with('#');
            out += (i ? "," : "") + json_quoted(names[i].substr(is_number)) + ":" +
                   (is_number ? (row[i].empty() ? "null" : row[i]) : json_quoted(row[i]));
        }
        out += "}";
    }
    return out + "]";
}

struct Figure {
    const char *metric, *member, *within, *sensor;
};
constexpr std::array<Figure, 8> kFigures = {{{"telemetry_node_cpu_percent", "cu", nullptr, nullptr},
                                             {"telemetry_node_memory_used_percent", "mu", nullptr, nullptr},
                                             {"telemetry_node_memory_free_kilobytes", "mf", nullptr, nullptr},
                                             {"telemetry_node_connections", "natn", nullptr, nullptr},
                                             {"telemetry_node_temperature_celsius", "w0", "tem", "w0"},
                                             {"telemetry_node_temperature_celsius", "w1", "tem", "w1"},
                                             {"telemetry_node_temperature_celsius", "w2", "tem", "w2"},
                                             {"telemetry_node_temperature_celsius", "cpu", "tem", "cpu"}}};

std::string figure_lines(const Figure &figure, const std::string &device, const cJSON *payload) {
    std::string out;
    const cJSON *node;
    cJSON_ArrayForEach(node, cJSON_GetObjectItemCaseSensitive(payload, "sl")) {
        const cJSON *place = figure.within ? cJSON_GetObjectItemCaseSensitive(node, figure.within) : node;
        const cJSON *value = cJSON_GetObjectItemCaseSensitive(place, figure.member);
        if (!cJSON_IsNumber(value) || value->valuedouble < 0)
            continue;
        char number[32];
        snprintf(number, sizeof(number), "%.10g", value->valuedouble);
        out += std::string(figure.metric) + "{device=" + metrics_label(device) +
               ",node=" + metrics_label(json_text(node, "dm"));
        if (figure.sensor)
            out += std::string(",sensor=\"") + figure.sensor + "\"";
        out += std::string("} ") + number + "\n";
    }
    return out;
}

} // namespace

Page::Page(const PageOptions &options, Store &store, Metrics &metrics,
           std::function<std::string()> more_metrics)
    : options_(options), store_(store), metrics_(metrics), more_metrics_(std::move(more_metrics)) {}

HttpAnswer Page::serve(const HttpRequest &request) {
    HttpAnswer answer;
    answer.headers = kHeaders;
    if (request.method != "GET" && request.method != "HEAD") {
        answer.status = 405;
        return answer;
    }
    if (!is_own_host(request.header("Host"), options_.host)) {
        answer.status = 403;
        return answer;
    }
    using Maker = std::string (Page::*)(const HttpRequest &);
    static constexpr std::pair<const char *, Maker> kMakers[] = {{"/api/meshes", &Page::meshes},
                                                                 {"/api/mesh", &Page::mesh},
                                                                 {"/api/series", &Page::series},
                                                                 {"/api/records", &Page::records},
                                                                 {"/api/record", &Page::record}};
    try {
        for (const auto &[path, maker] : kMakers) {
            if (request.path == path) {
                answer.body = (this->*maker)(request);
                answer.status = answer.body.empty() ? 404 : 200;
                return answer;
            }
        }
        if (request.path == "/metrics") {
            answer.type = "text/plain; version=0.0.4; charset=utf-8";
            answer.body = metrics_text();
            return answer;
        }
        return file(request.path);
    } catch (const StoreError &error) {
        fprintf(stderr, "telemetry-receiver: %s\n", error.what());
        answer.status = 503;
        return answer;
    }
}

HttpAnswer Page::file(const std::string &path) const {
    HttpAnswer answer;
    answer.headers = kHeaders;
    try {
        if (path == "/d3.js" && !options_.plots.empty()) {
            answer.type = "text/javascript; charset=utf-8";
            answer.body = read_file(options_.plots);
            return answer;
        }
        for (const PageFile &entry : kFiles) {
            if (path == entry.path) {
                answer.type = entry.type;
                answer.body = read_file(options_.directory + "/" + entry.name);
                return answer;
            }
        }
    } catch (const std::runtime_error &error) {
        fprintf(stderr, "telemetry-receiver: %s\n", error.what());
    }
    answer.status = 404;
    answer.type = "text/plain";
    return answer;
}

std::string Page::meshes(const HttpRequest &request) {
    const std::vector<std::string> names = {"device",     "model",    "firmware", "#first_seen",
                                            "#last_seen", "#uploads", "#records"};
    // Letters and digits only: no sign of a pattern comes from outside.
    std::string search = request.parameter("search").substr(0, 64);
    std::erase_if(search, [](unsigned char c) { return !isalnum(c); });
    return rows_json(
        store_.select("SELECT device, model, firmware, first_seen, last_seen, uploads, records "
                      "FROM devices WHERE lower(device) LIKE lower($1) ORDER BY last_seen DESC, device "
                      "LIMIT " +
                          std::string(kMaxMeshes),
                      {"%" + search + "%"}),
        names);
}

std::string Page::mesh(const HttpRequest &request) {
    const std::string device = request.parameter("device");
    const SqlRows known = store_.select("SELECT device, model, firmware, first_seen, last_seen, uploads, "
                                        "records FROM devices WHERE device = $1",
                                        {device});
    if (known.empty())
        return "";
    std::string text = rows_json(
        known, {"device", "model", "firmware", "#first_seen", "#last_seen", "#uploads", "#records"});
    text = text.substr(1, text.size() - 3); // the object's members
    return text + ",\"newest\":" +
           rows_json(
               store_.select("SELECT eid, at, received, payload FROM newest WHERE device = $1 ORDER BY eid "
                             "LIMIT 100",
                             {device}),
               {"eid", "#at", "#received", "payload"}) +
           "}";
}

// Records of one kind over time, evenly thinned to what one answer may hold.
std::string Page::series(const HttpRequest &request) {
    const std::vector<SqlValue> which = {request.parameter("device"), request.parameter("eid"),
                                         number_of(request, "from", 0), number_of(request, "to", INT64_MAX)};
    const std::string where = " FROM records WHERE device = $1 AND eid = $2 AND at >= $3 AND at <= $4 ";
    SqlRows all =
        store_.select("SELECT id, length(payload)" + where + "ORDER BY at DESC LIMIT " + kMaxScanned, which);
    std::reverse(all.begin(), all.end());
    size_t bytes = 0;
    for (const SqlRow &row : all)
        bytes += static_cast<size_t>(strtoull(row[1].c_str(), nullptr, 10));
    size_t step = (all.size() + kMaxPoints - 1) / kMaxPoints;
    step = std::max(step, (bytes + kMaxSeriesBytes - 1) / kMaxSeriesBytes);
    std::string ids;
    for (size_t i = 0; i < all.size(); i += step)
        ids += (ids.empty() ? "" : ",") + all[i][0];
    if (ids.empty())
        return R"({"step":1,"points":[]})";
    return "{\"step\":" + std::to_string(step) + ",\"points\":" +
           rows_json(
               store_.select("SELECT at, payload" + where + "AND id IN (" + ids + ") ORDER BY at", which),
               {"#at", "payload"}) +
           "}";
}

std::string Page::records(const HttpRequest &request) {
    return rows_json(
        store_.select(
            "SELECT id, eid, ct, at, length(payload) FROM records WHERE device = $1 AND "
            "(eid = $2 OR $2 = '') AND id < $3 ORDER BY id DESC LIMIT " +
                std::string(kMaxRecords),
            {request.parameter("device"), request.parameter("eid"), number_of(request, "before", INT64_MAX)}),
        {"#id", "eid", "ct", "#at", "#bytes"});
}

std::string Page::record(const HttpRequest &request) {
    const SqlRows rows =
        store_.select("SELECT r.id, r.eid, r.ct, r.device, p.received, r.payload FROM records r JOIN posts p "
                      "ON p.id = r.post_id AND p.day = r.day WHERE r.id = $1 AND r.device = $2",
                      {number_of(request, "id", 0), request.parameter("device")});
    if (rows.empty())
        return "";
    const std::string text = rows_json(rows, {"#id", "eid", "ct", "device", "#received", "payload"});
    return text.substr(1, text.size() - 2);
}

std::string Page::metrics_text() {
    std::string text = metrics_.text() + more_metrics_();
    const SqlRows rows =
        store_.select("SELECT n.device, n.payload FROM devices d JOIN newest n ON n.device = d.device "
                      "WHERE n.eid = 'system_info' ORDER BY d.last_seen DESC LIMIT " +
                      std::string(kMaxMonitored));
    std::vector<std::pair<std::string, JsonTree>> meshes;
    for (const SqlRow &row : rows)
        meshes.emplace_back(row[0], cJSON_Parse(row[1].c_str()));
    const char *last = "";
    for (const Figure &figure : kFigures) {
        if (std::string_view(last) != figure.metric)
            text += std::string("# HELP ") + figure.metric + " Newest figure of a node.\n# TYPE " +
                    figure.metric + " gauge\n";
        last = figure.metric;
        for (const auto &[device, payload] : meshes)
            text += figure_lines(figure, device, payload.get());
    }
    return text;
}
