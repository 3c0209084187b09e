// USB and AFC of every node: this node's own entry, the satellites' through the synchronisation service,
// repeats.
#include <csignal>

#include <sys/prctl.h>

#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "collect/collectors.h"
#include "collect/node_list.h"
#include "sysroot.h"
#include "telemetry_json.h"
#include "telemetry_paths.h"
#include "telemetry_pre_collect.h"

// "sync" in a process of its own: every request gets the same answer.
static std::string sync_answer;

static int answer_request(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
                          blob_attr *) {
    BlobBuffer reply;
    blobmsg_add_json_from_string(reply.get(), sync_answer.c_str());
    return ubus_send_reply(bus, request, reply.head());
}

class SyncService {
  public:
    SyncService(const std::string &socket, const std::string &answer) {
        sync_answer = answer;
        int ready[2];
        if (pipe(ready) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0)
            serve(socket, ready[1]);
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~SyncService() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

  private:
    [[noreturn]] static void serve(const std::string &socket, int ready) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        uloop_init();
        static const ubus_method methods[] = {{"request", answer_request, 0, 0, nullptr, 0}};
        static ubus_object_type type = {"sync", 0, methods, 1};
        static ubus_object object = {};
        object.name = "sync";
        object.type = &type;
        object.methods = methods;
        object.n_methods = 1;
        ubus_context *bus = ubus_connect(socket.c_str());
        if (bus == nullptr || ubus_add_object(bus, &object) != 0)
            _exit(1);
        ubus_add_uloop(bus);
        if (write(ready, "r", 1) != 1)
            _exit(1);
        uloop_run();
        _exit(0);
    }
    pid_t pid_;
};

class NodeCollectorsTest : public SysrootTest {
  protected:
    NodeCollectorsTest() : bus(root.path(kBusSocketPath)) {
        copy_text(ctx.dev_mac, "020000000101");
        root.write_backup("");
        telemetry_init_device_info_list(2);
    }
    ~NodeCollectorsTest() override {
        telemetry_free_device_info_list();
    }
    std::string collect(TelemetryCollector collector) {
        const JsonPtr payload(cJSON_CreateObject());
        count = 0;
        const OutputCapture quiet;
        EXPECT_EQ(collector(&ctx, payload.get(), &count), 0);
        return telemetry_json_print(payload.get()).get();
    }

    BusDaemon bus;
    TelemetryCtx ctx = {};
    uint32_t count = 0;
};

// Digests of 02-00-00-00-01-01 and 02-00-00-00-01-02 under "dm".
static const char kOwn[] = "\"dm\":\"e359fe905bfbbfddf6e237cd09d724de\"";
static const char kSatellite[] = "\"dm\":\"b0e3edb0ed86c1a7247247027bd945cd\"";

TEST_F(NodeCollectorsTest, UsbListsEachNodeOnceAndOnlyWhenTheListChanged) {
    const SyncService sync(bus.socket(),
                           R"({"success":3,"data":[)"
                           R"({"result":{"usb_enable":1,"usb_type":1,"vendor_id":"0781",)"
                           R"("product_id":"not hex","mac":"02-00-00-00-01-02"}},)"
                           R"({"result":{"usb_enable":1,"usb_type":2,"mac":"02:00:00:00:01:01"}},)"
                           R"({"result":{"usb_enable":1}}]})");
    EXPECT_EQ(collect(collect_usb_info), std::string(R"({"ul":[{)") + kOwn + R"(,"ue":0,"cc":0,"ut":0},{)" +
                                             kSatellite + R"(,"ue":1,"cc":0,"ut":1,"vi":"0781"}]})");
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(collect(collect_usb_info), "{}");
    EXPECT_EQ(count, 0u);
}

TEST_F(NodeCollectorsTest, AfcPassesOnKnownMembersOnDailyCyclesOfBoardsThatHaveIt) {
    const SyncService sync(bus.socket(),
                           R"({"success":1,"data":{"result":{"en":1,"st":"granted","ex":60,"lat":1.5,)"
                           R"("cl":[{"oc":131,"ch":5,"pw":30,"lat":2.5}],"mac":"02-00-00-00-01-02"}}})");
    EXPECT_EQ(collect(collect_afc_info), "{}"); // not due
    ctx.collect_stgy2_now = 1;
    EXPECT_EQ(collect(collect_afc_info), "{}"); // no 6 GHz radio
    root.write_profile("config afc\n\toption support 'yes'\n");
    EXPECT_EQ(collect(collect_afc_info),
              std::string(R"({"al":[{)") + kOwn + R"(,"en":0},{)" + kSatellite +
                  R"(,"en":1,"st":"granted","ex":60,"cl":[{"oc":131,"ch":5,"pw":30}]}]})");
    EXPECT_EQ(count, 2u);
}

TEST_F(NodeCollectorsTest, WithoutSatellitesAnswersThisNodeIsReportedAlone) {
    EXPECT_EQ(collect(collect_usb_info), std::string(R"({"ul":[{)") + kOwn + R"(,"ue":0,"cc":0,"ut":0}]})");
}
