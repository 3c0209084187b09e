// The snapshot's client side, step by step, from services, files and a driver that answer what each test
// says.
#include "telemetry_pre_client.h"
#include "telemetry_pre_collect.h"
#include "telemetry_snapshot.h"

#include <cstring>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

static constexpr char kReList[] = "/tmp/client_mgmt/re_client_list";
static constexpr const char *kModules[] = {"iot_kiro", "iot_zuna", "philips_hue", "matter"};

// --- A driver: stations by interface; names as on the board, the fourth network type has none

struct Radio {
    std::map<std::string, std::vector<ClientStaInfo>> stations;
    std::vector<std::string> asked;
    std::string failing_query;
    int failing_type = 3;
};
static Radio radio;

static int fake_if_name(int32_t band, int32_t type, char *name, int32_t size) {
    if (type == radio.failing_type || type > 2)
        return 0;
    constexpr int kDigits[] = {2, 4, 5};
    snprintf(name, static_cast<size_t>(size), "%s%d", band == 0 ? "ra" : "rax", kDigits[type]);
    return 1;
}

static int fake_stations(const char *ifname, ClientStaList *list, uint32_t *count) {
    radio.asked.push_back(ifname);
    if (radio.failing_query == ifname || *ifname == '\0')
        return 0;
    for (const ClientStaInfo &station : radio.stations[ifname]) {
        if (*count < list->capacity)
            list->stations[(*count)++] = station;
    }
    return 1;
}

static ClientStaInfo station(int number, uint32_t rate, uint8_t is_mlo = 0) {
    const auto high = static_cast<uint8_t>(number >> 8), low = static_cast<uint8_t>(number);
    return {{2, 0, 0, 2, high, low}, {2, 0, 0, 9, high, low}, 3, rate, rate + 1, is_mlo};
}

// --- Services

static ServiceAnswer tfstats(int total, const std::string &entries) {
    return {"{\"total\":" + std::to_string(total) + ",\"tfslist\":[" + entries + "]}"};
}

// Entries of the statistics, in order.
static std::string tfs_entries(const std::vector<const char *> &macs) {
    std::string text;
    for (const char *mac : macs)
        text += std::string(text.empty() ? "" : ",") + R"({"ip":"1","mac":")" + mac + "\"}";
    return text;
}

class PreClientTest : public SysrootTest {
  protected:
    PreClientTest() : before_(wlan_platform_ops) {
        operations_.get_band_if_name = fake_if_name;
        operations_.get_band_client_sta_info = fake_stations;
        wlan_platform_ops = &operations_;
        radio = {};
        fake_service_calls.clear();
        fake_services = {
            {"tfstats.get", tfstats(3, R"({"ip":"10.0.0.1","mac":"02:00:00:02:00:01","retx_byte":5000000000},
                {"ip":"10.0.0.2","mac":"020000020002"},{"ip":"10.0.0.3","mac":"02-00-00-02-00-03"})")},
            {"client_mgmt.get_myself",
             {R"({"a":{"mac":"02:00:00:02:00:01","hostname":"phone","wire_type":"wireless","is_guest":7,
                "connection_type":"5G","device_id":"MAIN","network_type":2,"signal_level_2g":1,
                "signal_level_5g":70,"signal_level_6g":9,"client_type":2},
                "n":5,"e":{},"x":{"mac":"02:00:00:02:00:99"}})"}},
            {"client_mgmt.get",
             {R"({"b":{"mac":"02:00:00:02:00:02","client_type":6},"c":{"mac":"02:00:00:02:00:03"}})"}},
            {"sync.list", {R"({"MAIN":{"mac":"02:00:00:01:00:01"},"SAT":{"mac":"02:00:00:01:00:02"}})"}}};
        root.write(kReList,
                   R"([{"mac":"020000020002","hostname":"tv","is_mlo":true,"is_guest":0,"device_id":"SAT",
            "wire_type":"wired","connection_type":"eth","network_type":1,"signal_level_2g":44,
            "signal_level_5g":55,"client_type":5},{"mac":7},4])");
        for (const char *module : kModules)
            root.write_config(module, "");
    }
    ~PreClientTest() override {
        telemetry_free_pre_collect_info();
        wlan_platform_ops = before_;
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    // The messages of a build, each followed by a bar.
    static std::string build(int expected) {
        std::string text;
        for (const std::string &line :
             logged_messages([&] { EXPECT_EQ(telemetry_pre_clients_info(), expected); }))
            text += line + "|";
        return text;
    }
    static PreClientInfo &client(int index) {
        return telemetry_get_client_info_list()[index];
    }
    WlanPlatformOps operations_ = {};
    const WlanPlatformOps *before_;
};

// What goes into the records, the home's first upload shows.
TEST_F(PreClientTest, ClientsComeFromTheirServicesInOrder) {
    radio.stations["rax2"] = {station(1, 866), station(2, 100, 1)};
    EXPECT_EQ(build(0), "get band ifname failed|get band ifname failed|");
    ASSERT_EQ(telemetry_get_client_num(), 3);
    EXPECT_EQ(client(0).hostname + std::string(client(0).ipaddr), "phone10.0.0.1");
    EXPECT_EQ(client(0).retx_byte, 5000000000);
    EXPECT_EQ(client(0).rxrate, 866u);
    // The station of this number is another one's multi-link address; the file after the service, the own
    // after.
    EXPECT_EQ(client(1).rxrate, UINT32_MAX);
    EXPECT_TRUE(client(1).client_type == 6 && client(1).is_mlo == 1 && client(1).signal_level_5g == 55);
    EXPECT_TRUE(client(0).is_exist == 1 && client(2).is_exist == 0);
    EXPECT_EQ(telemetry_get_myself_client_num_value(), 2); // entries that parse, known or not

    std::vector<std::string> calls;
    for (const ServiceCall &call : fake_service_calls) {
        calls.push_back(call.name + call.arguments);
        EXPECT_EQ(call.timeout_ms, 5000);
    }
    EXPECT_THAT(calls,
                ElementsAre("tfstats.get", "client_mgmt.get_myself", R"(client_mgmt.get{"request_type":0})",
                            "sync.list", "client_mgmt.get_myself"));
    EXPECT_EQ(get_telemetry_pre_client_info("02:00:00:02:00:01"), &client(0));
    EXPECT_EQ(get_telemetry_pre_client_info("0200"), &client(0));           // by prefix
    EXPECT_EQ(get_telemetry_pre_client_info("02:00:00:02:00:03"), nullptr); // not confirmed
    EXPECT_EQ(get_telemetry_pre_client_info(""), nullptr);
    // A list that is an object is walked like one.
    root.write(kReList, R"({"a":{"mac":"020000020002","hostname":"radio"}})");
    build(0);
    EXPECT_STREQ(client(1).hostname, "radio");
}

// In the place of an answer: no object, no bus, a failed call, no message.
static void set_answer(const std::string &service, const std::string &reply) {
    ServiceAnswer &answer = fake_services[service] = {reply};
    answer.has_data = reply != "silent";
    answer.error = reply == "absent"        ? TELEMETRY_BUS_NO_OBJECT
                   : reply == "unreachable" ? TELEMETRY_BUS_NO_CONNECTION
                   : reply == "failed"      ? TELEMETRY_BUS_CALL_FAILED
                                            : TELEMETRY_BUS_OK;
}

TEST_F(PreClientTest, StepsThatFail) {
    const std::string fits(65533, ' '), tfs_failed = "|pre_collect ubus clients info error|";
    struct Row {
        const char *source; // a service's method, or a file
        std::string answer;
        bool fatal;
        std::string messages;
    };
    const Row rows[] = {
        {"tfstats.get", "absent", true, "lookup tfstats project failed" + tfs_failed},
        {"tfstats.get", "failed", true, "ubus_invoke failed" + tfs_failed},
        {"tfstats.get", "unreachable", true, "ubus connect failed" + tfs_failed},
        {"tfstats.get", R"({"total":3})", true,
         "blobmsg prase tfstats array failed|clients info list is NULL|pre_collect RE clients info failed|"},
        {"tfstats.get", R"({"total":0,"tfslist":[]})", true, "clients info list is NULL|"},
        {"tfstats.get", R"({"total":2,"tfslist":[{"ip":"1"},{"mac":"02"},7]})", true, "clients number is 0|"},
        {"client_mgmt.get_myself", "absent", true,
         "lookup client_mgmt project failed|pre_collect AP clients info failed|"},
        {"client_mgmt.get_myself", "failed", true, "pre_collect AP clients info failed|"},
        {"client_mgmt.get", "failed", false, "ubus_invoke failed|"},
        {kReList, "absent", true,
         "open file /tmp/client_mgmt/re_client_list fialed|pre_collect RE clients info failed|"},
        {kReList, "{", true, "cJSON parse failed|"},
        {kReList, "[{},]", true, "cJSON parse failed|"},
        {kReList, "[{} {}]", true, "cJSON parse failed|"},
        {kReList, "[{}", true, "cJSON parse failed|"},
        {kReList, "\xEF\xBB\xBF\t[ 1 , {} ] x", false, ""},
        {kReList, "[" + fits + "]", false, ""},
        {kReList, "[ " + fits + "]", true, "cJSON parse failed|"}, // its end is beyond the buffer
        {"sync.list", "absent", true, "lookup client_mgmt project failed|pre_collect get sync list failed|"},
        {"sync.list", "silent", true, "sync list get NULL|pre_collect get sync list failed|"},
        {"/etc/config/iot_zuna", "absent", false, "uci_load failed, package=iot_zuna.|"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.source + row.answer.substr(0, 60));
        const auto services = fake_services;
        const std::string content = root.read(row.source);
        if (row.source[0] != '/')
            set_answer(row.source, row.answer);
        else
            row.answer == "absent" ? root.remove(row.source) : root.write(row.source, row.answer);
        EXPECT_THAT(build(row.fatal ? -1 : 0), HasSubstr(row.messages));
        EXPECT_EQ(telemetry_get_client_info_list() == nullptr, row.fatal);
        EXPECT_EQ(telemetry_get_client_num(), row.fatal ? 0 : 3);
        fake_services = services;
        if (row.source[0] == '/')
            root.write(row.source, content);
        build(0); // whole again
        EXPECT_EQ(telemetry_get_client_num(), 3);
    }
    // Only the second reading of the own clients fails.
    int readings = 0;
    fake_services["client_mgmt.get_myself"].fill = [&](blob_buf *) {
        if (++readings == 1)
            fake_services["client_mgmt.get_myself"].error = TELEMETRY_BUS_CALL_FAILED;
    };
    EXPECT_THAT(build(-1), HasSubstr("|pre_collect get client sta list failed|"));
}

TEST_F(PreClientTest, TotalIsBoundedByWhatIsThere) {
    const std::string many = tfs_entries(std::vector<const char *>(5000, "02:00:00:02:00:09"));
    struct Row {
        int total;
        std::string entries;
        int clients;
        std::vector<std::string> messages;
    };
    const Row rows[] = {
        {3, R"({"ip":"1","mac":"02"},{"mac":"03"},{"ip":"3","mac":"04"})", 2, {}},
        {4096, many, 4096, {"tfslist has more than 4096 entries, cut"}},
        {INT32_MAX, tfs_entries({"02"}), 1, {"tfstats announces 2147483647 clients, using 4096"}},
        {-1, many, 0, {"tfstats announces -1 clients, using 0"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.total);
        fake_services["tfstats.get"] = tfstats(row.total, row.entries);
        EXPECT_EQ(logged_messages([] { EXPECT_EQ(telemetry_get_client_list_from_tfstats(), 0); }),
                  row.messages);
        EXPECT_EQ(telemetry_get_client_num(), row.clients);
    }
}

TEST_F(PreClientTest, LongTextsAreCutAndSaidOnce) {
    const std::string text(5000, 't');
    std::string entry = R"({"mac":"02:00:00:02:00:01")";
    for (const char *key : {"hostname", "wire_type", "connection_type", "device_id"})
        entry += std::string(",\"") + key + "\":\"" + text + "\"";
    entry += "}";
    fake_services["client_mgmt.get_myself"] = {R"({"a":)" + entry + R"(,"b":)" + entry + "}"};
    root.write(kReList, "[" + entry + "]");
    fake_services["tfstats.get"] = tfstats(1, R"({"ip":")" + text + R"(","mac":"02:00:00:02:00:01:ff:ff"})");
    EXPECT_THAT(build(0),
                HasSubstr("tfstats: 1 texts are too long and were cut, the first is a ip|"
                          "client_mgmt: 8 texts are too long and were cut, the first is a hostname|" +
                          std::string(kReList) + ": 4 texts are too long and were cut"));
    const PreClientInfo &one = client(0);
    EXPECT_TRUE(one.ipaddr == text.substr(0, 15) && one.hostname == text.substr(0, 63) &&
                one.wire_type == text.substr(0, 15) && one.connection_type == text.substr(0, 15) &&
                one.device_id == text.substr(0, 127));
    EXPECT_STREQ(client(0).mac, "02-00-00-02-00-01");
}

TEST_F(PreClientTest, IotDevices) {
    fake_services["tfstats.get"] = tfstats(2, tfs_entries({"02:00:00:02:00:01", "02:00:00:02:00:03"}));
    struct Row {
        const char *packages; // package, mac, category of each device
        const char *module, *category;
    };
    const Row rows[] = {
        {"matter 02:00:00:02:00:01 lock iot_kiro 020000020001 light", "kiro", "light"},
        {"matter 02:00:00:02:00:01 s", "matter", "switch"},
        {"philips_hue 02-00-00-02-00-01 se", "hue", "sensor"},
        {"iot_zuna 02:00:00:02:00:01 sensors", "zuna", nullptr},
        {"iot_zuna 02:00:00:02:00:77 lock iot_zuna : lock", nullptr, nullptr},
        {"iot_zuna 02:00:00:02:00:01:ff:ff lock", nullptr, nullptr}, // longer than any client's
    };
    for (const Row &row : rows) {
        std::map<std::string, std::string> packages;
        std::istringstream words(row.packages);
        for (std::string package, mac, category; words >> package >> mac >> category;)
            packages[package] +=
                "config d\n\toption mac '" + mac + "'\n\toption category '" + category + "'\n";
        for (const char *module : kModules)
            root.write_config(module, packages[module] + "config d\n");
        build(0);
        EXPECT_STREQ(client(0).iot_module, row.module);
        EXPECT_STREQ(client(0).iot_category, row.category);
        EXPECT_EQ(client(0).is_iotdevice, row.module != nullptr);
        EXPECT_EQ(client(1).is_iotdevice, 0); // not confirmed
    }
}

// A package that is not there is told once a snapshot, however many clients there are, and is no news in the
// next.
TEST_F(PreClientTest, AMissingPackageOfIotDevicesIsToldOnce) {
    fake_services["tfstats.get"] = tfstats(2, tfs_entries({"02:00:00:02:00:01", "02:00:00:02:00:02"}));
    root.remove("/etc/config/iot_zuna");
    const OutputCapture output;
    for (int cycle = 0; cycle < 2; ++cycle) {
        const TelemetryRepeatTopic topic("snapshot");
        topic.ran();
        EXPECT_EQ(telemetry_pre_clients_info(), 0);
        EXPECT_TRUE(client(0).is_exist == 1 && client(1).is_exist == 1);
        const std::string text = output.text();
        const size_t told = text.find("uci_load failed, package=");
        EXPECT_NE(told, std::string::npos);
        EXPECT_EQ(told, text.rfind("uci_load failed, package=")) << text;
    }
}

TEST_F(PreClientTest, StationsOfEveryInterfaceOnce) {
    std::vector<ClientStaInfo> room(512);
    ClientStaList list = {1, 512, room.data()};
    uint32_t found = 0;
    radio.stations = {
        {"ra2", {station(1, 10)}}, {"ra5", {station(2, 10), station(3, 10)}}, {"rax4", {station(1, 10)}}};
    EXPECT_EQ(telemetry_get_client_sta_info(&list, &found), -1); // the fourth type has no name
    EXPECT_EQ(found, 4u); // a MAC on two interfaces is two stations, one interface asked twice is not
    EXPECT_THAT(radio.asked, ElementsAre("ra2", "ra4", "ra5", "ra5", "rax2", "rax4", "rax5", "rax5"));

    // No name for the first type: nothing is asked again of the other band, and the rest is found.
    radio.asked.clear();
    radio.failing_type = 0;
    radio.failing_query = "ra4";
    EXPECT_THAT(logged_messages([&] { telemetry_get_client_sta_info(&list, &found); }),
                Contains("get client sta info  failed ifname:ra4"));
    EXPECT_THAT(radio.asked, ElementsAre("", "ra4", "ra5", "ra5", "", "rax4", "rax5", "rax5"));
    EXPECT_EQ(found, 3u);
}

TEST_F(PreClientTest, LookupsTakeTheFirstOfAnAddress) {
    // The first record of an address has everything; a confirmed one is looked for behind it.
    fake_services["tfstats.get"] = tfstats(3, tfs_entries({"02", "02:00:00:02:00:01", "02:00:00:02:00:01"}));
    telemetry_get_client_list_from_tfstats();
    EXPECT_EQ(telemetry_find_client_by_mac("02-00-00-02-00-01"), &client(1));
    EXPECT_EQ(telemetry_find_client_by_mac("02"), &client(0));
    client(2).is_exist = 1;
    EXPECT_EQ(get_telemetry_pre_client_info("020000020001"), &client(2));
}
