// The status object: its table, its subscribers, and that it costs nothing when the bus does not take it.
#include "telemetry_status.h"

#include <tuple>

#include <gmock/gmock.h>

#include "bus_daemon.h"
#include "sysroot.h"
#include "telemetry_collect.h"
#include "telemetry_figures.h"
#include "telemetry_json_read.h"
#include "telemetry_log.h"
#include "telemetry_paths.h"
#include "telemetry_post.h"
#include "telemetry_ubus.h"

using ::testing::HasSubstr;
using ::testing::Not;

class TelemetryStatusTest : public SysrootTest {
  protected:
    TelemetryStatusTest() : bus(root.path(kBusSocketPath)) {
        uloop_init();
        telemetry_figures_start();
        snprintf(ctx.access_key, sizeof(ctx.access_key), "the-key");
        snprintf(ctx.access_secret, sizeof(ctx.access_secret), "the-secret");
        snprintf(ctx.strategy_id, sizeof(ctx.strategy_id), "s-7");
        ctx.post_state = 3;
        ctx.collect_interval_strategy1 = 900000;
    }
    ~TelemetryStatusTest() override {
        telemetry_free_ubus();
        cJSON_Delete(ctx.collect_list);
        uloop_done();
    }
    std::string get(const char *arguments = "{}") {
        return LoopClient(bus.socket()).call("telemetry.status", "get", arguments).json;
    }

    BusDaemon bus;
    TelemetryCtx ctx = {};
};

TEST_F(TelemetryStatusTest, TellsWhatItDoesAndNeverTheKey) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    EXPECT_THAT(
        get(),
        HasSubstr(
            R"("has_device_id":false,"role":"satellite","collecting":false,"reason":"disabled","state":"ready")"));
    root.write("/etc/config/telemetry", "config telemetry 'basic'\n\toption enable '1'\n");
    EXPECT_THAT(get(), HasSubstr(R"("reason":"clock not set")"));
    root.write("/tmp/run/ntpd.uptime", "1");
    EXPECT_THAT(get(), HasSubstr(R"("reason":"not the main node")"));
    root.write("/tmp/work_mode", R"({"work_mode":"FAP"})");
    EXPECT_THAT(get(), HasSubstr(R"("role":"main","collecting":true,"state":"ready")"));

    // One cycle of one module, an upload that failed and one that went through.
    ctx.collect_list = cJSON_CreateArray();
    telemetry_collect_data_by_module(&ctx, ctx.collect_list, "x",
                                     [](TelemetryCtx *, cJSON *payload, uint32_t *count) {
                                         *count = 2;
                                         return cJSON_AddNumberToObject(payload, "a", 1) != nullptr ? 0 : -1;
                                     });
    telemetry_collect_data_by_module(&ctx, ctx.collect_list, "y",
                                     [](TelemetryCtx *, cJSON *, uint32_t *) { return -3; });
    telemetry_figures.collected = 1700000000;
    telemetry_figures.failed = {1700000001, 1, 2, 60, 8000, 0, 0, false, "Timeout was reached"};
    telemetry_figures.accepted = {1700000002, 1, 2, 60, 12, 200, 0, true, "No error"};
    ctx.collect_timer.cb = [](uloop_timeout *) {};
    uloop_timeout_set(&ctx.collect_timer, 900000);
    PostRequest under_way = {};
    under_way.in_use = 1;
    ctx.post_requests[3] = &under_way;
    const std::string status = get(R"({"any":["argument"]})");
    EXPECT_THAT(status, HasSubstr(R"("requests":1,)"));
    uloop_timeout_cancel(&ctx.collect_timer);
    EXPECT_THAT(status, HasSubstr(R"("list":{"records":1,"items":2,"bytes":)"));
    EXPECT_THAT(status, HasSubstr(R"("modules":{"x":{"result":0,"items":2,"ms":)"));
    EXPECT_THAT(status, HasSubstr(R"("y":{"result":-3,"items":0,"ms":)"));
    EXPECT_THAT(status, HasSubstr(R"("last_upload":{"time":1700000002,"records":1,"bytes":60,"ms":12,)"
                                  R"("transport":"No error","http_status":200,"error_code":0})"));
    EXPECT_THAT(status, HasSubstr(R"("ms":8000,"transport":"Timeout was reached","http_status":0})"));
    EXPECT_THAT(status, HasSubstr(R"("counters":{"cycles":0,"records":1,"items":2,)"));
    EXPECT_THAT(status, Not(HasSubstr(R"("collect_ms":-1)")));
    EXPECT_THAT(status, Not(HasSubstr("the-")));
}

TEST_F(TelemetryStatusTest, SubscribersHear) {
    ASSERT_EQ(telemetry_init_ubus(&ctx), 0);
    static std::string heard;
    heard.clear();
    LoopClient client(bus.socket());
    ubus_subscriber subscriber = {};
    subscriber.cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *method,
                       blob_attr *message) {
        const TextPtr text(blobmsg_format_json(message, true));
        heard = std::string(method) + " " + (text ? text.get() : "");
        uloop_end();
        return 0;
    };
    uint32_t id = 0;
    ASSERT_EQ(ubus_register_subscriber(client.bus(), &subscriber), 0);
    ASSERT_EQ(ubus_lookup_id(client.bus(), "telemetry.status", &id), 0);
    ASSERT_EQ(ubus_subscribe(client.bus(), &subscriber, id), 0);
    for (int turns = 0; turns < 100 && heard.empty(); ++turns) {
        telemetry_figures_tell("collected");
        uloop_run_timeout(50);
    }
    EXPECT_THAT(heard, HasSubstr("collected {\"version\":"));
}

TEST(TelemetryLog, SecretsShowFourCharacters) {
    const std::tuple<const char *, const char *> cases[] = {
        {"access_key:abcdefgh", "access_key:abcd..."},
        {"access secret: abcdefgh", "access secret: abcd..."},
        {"access_key:abcde", "access_key:abcd."},
        {"uci_set telemetry.cloud.accessSecret=abcdefgh failed",
         "uci_set telemetry.cloud.accessSecret=abcd..."},
        {"uci_set_value [abcdefgh] error", "uci_set_value [abcd..."},
        {"access_secret:ab,cdefgh", "access_secret:ab,c..."},
        {"{\"accessKey\" :\t\"ab\\\"cdefgh\", \"a\": 1}", "{\"accessKey\" :\t\"ab\\\"...\", \"a\": 1}"},
        {R"(response:{"result":{"accessKey":"abcdefgh","accessSecret":"12345678"}})",
         R"(response:{"result":{"accessKey":"abcd...","accessSecret":"1234..."}})"},
    };
    for (const auto &[line, shown] : cases) {
        std::string text = line;
        telemetry_log_hide_secrets(text.data());
        EXPECT_STREQ(text.c_str(), shown);
    }
}
