// The receiver's side towards people and monitors, over plain HTTP: the page with its scripts, what it shows
// as JSON, and /metrics. It only reads. Meant for this machine; for others put a proxy in front that knows
// who may look.
#pragma once

#include <functional>
#include <string>

#include "receiver_http.h"
#include "receiver_metrics.h"
#include "receiver_store.h"

struct PageOptions {
    std::string host;      // a name under which the page may be asked for, besides addresses and "localhost"
    std::string directory; // of index.html and what belongs to it
    std::string plots;     // the plotting library's file; "" where there is none
};

class Page {
  public:
    Page(const PageOptions &options, Store &store, Metrics &metrics,
         std::function<std::string()> more_metrics);
    HttpAnswer serve(const HttpRequest &request);

  private:
    HttpAnswer file(const std::string &path) const;
    std::string meshes(const HttpRequest &request);
    std::string mesh(const HttpRequest &request);
    std::string series(const HttpRequest &request);
    std::string records(const HttpRequest &request);
    std::string record(const HttpRequest &request);
    std::string metrics_text();

    PageOptions options_;
    Store &store_;
    Metrics &metrics_;
    std::function<std::string()> more_metrics_;
};
