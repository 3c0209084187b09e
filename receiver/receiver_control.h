// Orders that make the receiver misbehave: docs/lab.md lists them. Only where the owner opened a port for
// them.
#pragma once

#include "receiver_http.h"
#include "receiver_service.h"

class Control {
  public:
    Control(Service &service, Store &store, Script &script)
        : service_(service), store_(store), script_(script) {}
    HttpAnswer serve(const HttpRequest &request);

  private:
    std::string carry_out(const std::string &order, const std::string &body);
    Service &service_;
    Store &store_;
    Script &script_;
};
