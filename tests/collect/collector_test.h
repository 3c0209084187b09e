// A fixture that runs a collector by itself and keeps what it reports and says.
#pragma once

#include <gmock/gmock.h>

#include "collectors.h"
#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_pre_collect.h"
#include "telemetry_snapshot.h"

inline std::string replaced(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

class CollectorTest : public SysrootTest {
  protected:
    CollectorTest() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        ctx.collect_periodic_now = ctx.collect_stgy2_now = 1;
        root.write_backup("");
    }
    ~CollectorTest() override {
        telemetry_free_pre_collect_info();
        wlan_platform_ops = &wlan_platform_ops_mtk;
    }
    // A file when the name is a path, else a configuration package (";" ends a line).
    void put(const std::string &name, const std::string &content) {
        name[0] == '/' ? root.write(name, content) : root.write_config(name, replaced(content, ";", "\n"));
    }
    // The payload's text; "" for a failure.
    std::string collect(TelemetryCollector collector) {
        const JsonPtr payload(cJSON_CreateObject());
        count = 0;
        const OutputCapture capture;
        const int result = collector(&ctx, payload.get(), &count);
        log = capture.text();
        said = capture.messages();
        return result == 0 ? telemetry_json_print(payload.get()).get() : "";
    }
    TelemetryCtx ctx = {};
    uint32_t count = 0;
    std::string log;
    std::vector<std::string> said; // the log's messages
};
