// The snapshot's client side, step by step, from services, files and a driver that answer what each test
// says.
#include "telemetry_pre_collect.h"

#include <cstring>

#include <malloc.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_services.h"
#include "sysroot.h"
#include "telemetry_log.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// Bytes that the process has allocated; where a sanitizer owns the heap, it is the one to ask.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

static size_t allocated_bytes() {
    return __sanitizer_get_current_allocated_bytes != nullptr ? __sanitizer_get_current_allocated_bytes()
                                                              : mallinfo2().uordblks;
}

static constexpr char kReList[] = "/tmp/client_mgmt/re_client_list";

// --- A driver: stations by interface; names as on the board, the fourth network type has none
// -----------------------

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

static ClientStaInfo station(uint8_t last, uint32_t rate, uint8_t is_mlo = 0) {
    return {{2, 0, 0, 2, 0, last}, {2, 0, 0, 9, 0, last}, 3, rate, rate + 1, is_mlo};
}

// --- Services
// ----------------------------------------------------------------------------------------------------------

struct TfsEntry {
    const char *ip; // null: none
    const char *mac;
    int64_t retx = 0;
};

static ServiceAnswer tfstats(uint32_t total, std::vector<TfsEntry> entries) {
    ServiceAnswer answer;
    answer.fill = [=](blob_buf *reply) {
        blobmsg_add_u32(reply, "total", total);
        void *list = blobmsg_open_array(reply, "tfslist");
        for (const TfsEntry &entry : entries) {
            void *table = blobmsg_open_table(reply, nullptr);
            if (entry.ip != nullptr)
                blobmsg_add_string(reply, "ip", entry.ip);
            if (entry.mac != nullptr)
                blobmsg_add_string(reply, "mac", entry.mac);
            if (entry.retx != 0)
                blobmsg_add_u64(reply, "retx_byte", static_cast<uint64_t>(entry.retx));
            blobmsg_close_table(reply, table);
        }
        blobmsg_close_array(reply, list);
    };
    return answer;
}

static const std::vector<TfsEntry> kThree = {{"10.0.0.1", "02:00:00:02:00:01", 5000000000},
                                             {"10.0.0.2", "020000020002"},
                                             {"10.0.0.3", "02-00-00-02-00-03"}};

class PreClientTest : public SysrootTest {
  protected:
    PreClientTest() : before_(wlan_platform_ops) {
        operations_.get_band_if_name = fake_if_name;
        operations_.get_band_client_sta_info = fake_stations;
        wlan_platform_ops = &operations_;
        radio = {};
        fake_service_calls.clear();
        fake_services.clear();
        fake_services["tfstats.get"] = tfstats(3, kThree);
        fake_services["client_mgmt.get_myself"] = {
            R"({"a":{"mac":"02:00:00:02:00:01","hostname":"phone","wire_type":"wireless","is_guest":7,
                "connection_type":"5G","device_id":"MAIN","network_type":2,"signal_level_2g":1,"signal_level_5g":70,
                "signal_level_6g":9,"client_type":2},"n":5,"e":{},"x":{"mac":"02:00:00:02:00:99"}})"};
        fake_services["client_mgmt.get"] = {
            R"({"b":{"mac":"02:00:00:02:00:02","client_type":6},"c":{"mac":"02:00:00:02:00:03"}})"};
        fake_services["sync.list"] = {
            R"({"MAIN":{"mac":"02:00:00:01:00:01"},"SAT":{"mac":"02:00:00:01:00:02"}})"};
        root.write(kReList,
                   R"([{"mac":"020000020002","hostname":"tv","is_mlo":true,"is_guest":0,"device_id":"SAT",
                "network_type":1,"signal_level_2g":44,"client_type":5},{"mac":7},4])");
        for (const char *module : {"iot_kiro", "iot_zuna", "philips_hue", "matter"})
            root.write_config(module, "");
    }
    ~PreClientTest() override {
        telemetry_free_pre_collect_info();
        wlan_platform_ops = before_;
        telemetry_debug_level = TELEMETRY_LOG_INFO;
    }
    std::vector<std::string> build(int expected) {
        return logged_messages([&] { EXPECT_EQ(telemetry_pre_clients_info(), expected); });
    }
    static PreClientInfo &client(int index) {
        return telemetry_get_client_info_list()[index];
    }
    WlanPlatformOps operations_ = {};
    const WlanPlatformOps *before_;
};

TEST_F(PreClientTest, EveryFieldHasItsSource) {
    radio.stations["rax2"] = {station(1, 866), station(2, 100, 1)};
    const auto messages = build(0);
    EXPECT_THAT(messages, ElementsAre("get band ifname failed", "get band ifname failed"));
    ASSERT_EQ(telemetry_get_client_num(), 3);
    const PreClientInfo &own = client(0);
    EXPECT_STREQ(own.ipaddr, "10.0.0.1");
    EXPECT_STREQ(own.mac, "02-00-00-02-00-01");
    EXPECT_EQ(own.retx_byte, 5000000000);
    EXPECT_EQ(own.rerx_byte, 0);
    EXPECT_EQ(own.is_exist, 1);
    EXPECT_STREQ(own.hostname, "phone");
    EXPECT_STREQ(own.wire_type, "wireless");
    EXPECT_STREQ(own.connection_type, "5G");
    EXPECT_STREQ(own.device_id, "MAIN");
    EXPECT_EQ(own.is_guest, 1);
    EXPECT_EQ(own.network_type, 2u);
    EXPECT_EQ(own.signal_level_5g, 70u);
    EXPECT_EQ(own.client_type, 2u);
    EXPECT_STREQ(own.ap_mac, "02-00-00-01-00-01");
    EXPECT_EQ(own.phymode, 3u);
    EXPECT_EQ(own.rxrate, 866u);
    EXPECT_EQ(own.txrate, 867u);
    const PreClientInfo &satellites = client(1);
    EXPECT_STREQ(satellites.hostname, "tv");
    EXPECT_EQ(satellites.is_mlo, 1); // its station is another one's multi-link address
    EXPECT_EQ(satellites.client_type, 6u);
    EXPECT_EQ(satellites.signal_level_2g, 44u);
    EXPECT_STREQ(satellites.ap_mac, "02-00-00-01-00-02");
    EXPECT_EQ(satellites.txrate, UINT32_MAX);
    EXPECT_EQ(client(2).is_exist, 0);
    EXPECT_STREQ(client(2).ap_mac, "");
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
    telemetry_debug_level = TELEMETRY_LOG_DEBUG;
    const auto dump = logged_messages([] { telemetry_print_client_info(); });
    EXPECT_EQ(std::count(dump.begin(), dump.end(), "wire_type : wireless"), 2);
    EXPECT_EQ(dump.size(), 3u * 22);
}

TEST_F(PreClientTest, StepsThatFail) {
    struct Row {
        const char *what;
        std::function<void()> spoil;
        bool fatal;
        std::vector<const char *> messages;
    };
    const auto service = [](const char *name, ServiceAnswer answer) {
        return [=] { fake_services[name] = answer; };
    };
    const auto absent = [](const char *name) { return [=] { fake_services.erase(name); }; };
    const ServiceAnswer failed = {.error = TELEMETRY_BUS_CALL_FAILED};
    const ServiceAnswer unreachable = {.error = TELEMETRY_BUS_NO_CONNECTION};
    const ServiceAnswer no_data = {.has_data = false};
    const Row rows[] = {
        {"tfstats absent",
         absent("tfstats.get"),
         true,
         {"lookup tfstats project failed", "pre_collect ubus clients info error"}},
        {"tfstats slow",
         service("tfstats.get", failed),
         true,
         {"ubus_invoke failed", "pre_collect ubus clients info error"}},
        {"no bus",
         service("tfstats.get", unreachable),
         true,
         {"ubus connect failed", "pre_collect ubus clients info error"}},
        {"tfstats without list",
         service("tfstats.get", {R"({"total":3})"}),
         true,
         {"blobmsg prase tfstats array failed", "clients info list is NULL",
          "pre_collect RE clients info failed"}},
        {"tfstats of other types",
         service("tfstats.get", {R"({"total":"3","tfslist":{}})"}),
         true,
         {"blobmsg prase tfstats array failed"}},
        {"tfstats silent", service("tfstats.get", no_data), true, {"clients info list is NULL"}},
        {"no clients", service("tfstats.get", tfstats(0, {})), true, {"clients info list is NULL"}},
        {"none with an address",
         service("tfstats.get", tfstats(2, {{nullptr, "02"}, {"1.1.1.1", nullptr}})),
         true,
         {"clients number is 0"}},
        {"client_mgmt absent",
         absent("client_mgmt.get_myself"),
         true,
         {"lookup client_mgmt project failed", "pre_collect AP clients info failed"}},
        {"own clients slow",
         service("client_mgmt.get_myself", failed),
         true,
         {"pre_collect AP clients info failed"}},
        {"types slow", service("client_mgmt.get", failed), false, {"ubus_invoke failed"}},
        {"types silent", service("client_mgmt.get", no_data), false, {}},
        {"no satellites' file",
         [&] { root.remove(kReList); },
         true,
         {"open file /tmp/client_mgmt/re_client_list fialed", "pre_collect RE clients info failed"}},
        {"empty satellites' file", [&] { root.write(kReList, ""); }, true, {"cJSON parse failed"}},
        {"satellites' file is no list",
         [&] { root.write(kReList, R"({"a":{"mac":"02"}})"); },
         true,
         {"cJSON parse failed"}},
        {"satellites without clients", [&] { root.write(kReList, "[]"); }, false, {}},
        {"satellites' file just fits",
         [&] { root.write(kReList, "[" + std::string(65533, ' ') + "]"); },
         false,
         {}},
        {"satellites' file is cut",
         [&] { root.write(kReList, "[" + std::string(65534, ' ') + "]"); },
         true,
         {"cJSON parse failed"}},
        {"sync absent",
         absent("sync.list"),
         true,
         {"lookup client_mgmt project failed", "pre_collect get sync list failed"}},
        {"sync silent",
         service("sync.list", no_data),
         true,
         {"sync list get NULL", "pre_collect get sync list failed"}},
        {"sync nonsense", service("sync.list", {R"({"MAIN":7,"SAT":[{"mac":"x"}]})"}), false, {}},
        {"no module",
         [&] { root.remove("/etc/config/iot_zuna"); },
         false,
         {"uci_load failed, package=iot_zuna."}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        const auto services = fake_services;
        const std::string list = root.read(kReList);
        row.spoil();
        const auto messages = build(row.fatal ? -1 : 0);
        for (const char *message : row.messages)
            EXPECT_THAT(messages, Contains(message));
        EXPECT_EQ(telemetry_get_client_info_list() == nullptr, row.fatal);
        EXPECT_EQ(telemetry_get_client_num(), row.fatal ? 0 : 3);
        fake_services = services;
        root.write(kReList, list);
        build(0); // whole again
        EXPECT_EQ(telemetry_get_client_num(), 3);
    }
    // Only the second reading of the own clients fails.
    ServiceAnswer second;
    int readings = 0;
    second.fill = [&](blob_buf *) {
        if (++readings == 1)
            fake_services["client_mgmt.get_myself"].error = TELEMETRY_BUS_CALL_FAILED;
    };
    fake_services["client_mgmt.get_myself"] = second;
    EXPECT_THAT(build(-1), Contains("pre_collect get client sta list failed"));
}

TEST_F(PreClientTest, TotalIsBoundedByWhatIsThere) {
    std::vector<TfsEntry> many(5000, {"10.0.0.9", "02:00:00:02:00:09"});
    struct Row {
        uint32_t total;
        std::vector<TfsEntry> entries;
        int clients;
        const char *message; // null: none
    };
    const Row rows[] = {
        {3, {{"1", "02"}, {nullptr, "03"}, {"3", "04"}}, 2, nullptr},
        {2, {{"1", "02"}, {"2", "03"}, {"3", "04"}}, 2, "tfslist has more than 2 entries, cut"},
        {9, {{"1", "02"}}, 1, nullptr},
        {4096, many, 4096, "tfslist has more than 4096 entries, cut"},
        {0x7fffffff, many, 4096, "tfstats announces 2147483647 clients, using 4096"},
        {0xffffffff, many, 0, "tfstats announces -1 clients, using 0"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.total);
        fake_services["tfstats.get"] = tfstats(row.total, row.entries);
        const auto messages = logged_messages([] { EXPECT_EQ(telemetry_get_client_list_from_tfstats(), 0); });
        EXPECT_EQ(telemetry_get_client_num(), row.clients);
        if (row.message != nullptr)
            EXPECT_THAT(messages, Contains(row.message));
        else
            EXPECT_THAT(messages, IsEmpty());
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
    fake_services["tfstats.get"] = tfstats(1, {{text.c_str(), "02:00:00:02:00:01:ff:ff"}});
    const auto messages = build(0);
    EXPECT_THAT(messages, Contains("tfstats: 1 texts are too long and were cut, the first is a ip"));
    EXPECT_THAT(messages,
                Contains("client_mgmt: 8 texts are too long and were cut, the first is a hostname"));
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                            [](const std::string &line) { return line.find("were cut") != line.npos; }),
              3);
    EXPECT_EQ(client(0).ipaddr, text.substr(0, 15));
    EXPECT_EQ(client(0).hostname, text.substr(0, 63));
    EXPECT_EQ(client(0).wire_type, text.substr(0, 15));
    EXPECT_EQ(client(0).connection_type, text.substr(0, 15));
    EXPECT_EQ(client(0).device_id, text.substr(0, 127));
    EXPECT_STREQ(client(0).mac, "02-00-00-02-00-01");
}

TEST_F(PreClientTest, IotDevices) {
    fake_services["tfstats.get"] = tfstats(2, {{"1", "02:00:00:02:00:01"}, {"2", "02:00:00:02:00:03"}});
    struct Row {
        std::map<std::string, std::string> packages;
        const char *module, *category;
    };
    const auto device = [](const char *mac, const char *category = nullptr) {
        return std::string("config d\n\toption mac '") + mac + "'\n" +
               (category != nullptr ? std::string("\toption category '") + category + "'\n" : "");
    };
    const Row rows[] = {
        {{{"matter", device("02:00:00:02:00:01", "lock")}, {"iot_kiro", device("020000020001", "light")}},
         "kiro",
         "light"},
        {{{"matter", device("02:00:00:02:00:01", "s")}}, "matter", "switch"},
        {{{"philips_hue", device("02-00-00-02-00-01", "se")}}, "hue", "sensor"},
        {{{"iot_zuna", device("02:00:00:02:00:01", "sensors")}}, "zuna", nullptr},
        {{{"iot_zuna", device("02:00:00:02:00:01")}}, "zuna", nullptr},
        {{{"iot_zuna", device("02:00", "lock") + device("02:00:00:02:00:01", "light")}}, "zuna", "lock"},
        {{{"iot_zuna", device("02:00:00:02:00:77", "lock") + "config d\n"}}, nullptr, nullptr},
    };
    for (const Row &row : rows) {
        for (const char *module : {"iot_kiro", "iot_zuna", "philips_hue", "matter"})
            root.write_config(module, row.packages.count(module) != 0 ? row.packages.at(module) : "");
        build(0);
        EXPECT_STREQ(client(0).iot_module, row.module);
        EXPECT_STREQ(client(0).iot_category, row.category);
        EXPECT_EQ(client(0).is_iotdevice, row.module != nullptr);
        EXPECT_EQ(client(1).is_iotdevice, 0); // not confirmed
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
    const auto messages = logged_messages([&] { telemetry_get_client_sta_info(&list, &found); });
    EXPECT_THAT(radio.asked, ElementsAre("", "ra4", "ra5", "ra5", "", "rax4", "rax5", "rax5"));
    EXPECT_THAT(messages, Contains("get client sta info  failed ifname:ra4"));
    EXPECT_EQ(found, 3u);
}

TEST_F(PreClientTest, MoreStationsThanTheServiceCounts) {
    // 300 clients of which 260 are this node's: the count in 8 bits would be 4, and the driver knows more
    // than that.
    std::vector<std::string> macs;
    std::vector<TfsEntry> entries;
    std::string own = "{";
    for (int i = 0; i < 300; ++i) {
        char mac[18];
        snprintf(mac, sizeof(mac), "02:00:00:02:%02x:%02x", i >> 8, i & 255);
        macs.emplace_back(mac);
        if (i < 256)
            own += "\"" + macs.back() + "\":{\"mac\":\"" + macs.back() + "\"},";
    }
    own.back() = '}';
    for (const std::string &mac : macs)
        entries.push_back({"1", mac.c_str()});
    fake_services["tfstats.get"] = tfstats(300, entries);
    fake_services["client_mgmt.get_myself"] = {own};
    const char *const interfaces[] = {"ra2", "ra4", "ra5", "rax2", "rax4", "rax5"};
    for (int i = 0; i < 300; ++i) {
        ClientStaInfo entry = station(static_cast<uint8_t>(i & 255), static_cast<uint32_t>(i));
        entry.mac[4] = static_cast<uint8_t>(i >> 8);
        radio.stations[interfaces[i / 50]].push_back(entry);
    }
    build(0);
    EXPECT_EQ(telemetry_get_myself_client_num_value(), 256);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(client(i).rxrate, static_cast<uint32_t>(i));
    // Without clients of its own the driver is not asked.
    fake_services["client_mgmt.get_myself"] = {"{}"};
    radio.asked.clear();
    build(0);
    EXPECT_THAT(radio.asked, IsEmpty());
}

TEST_F(PreClientTest, LookupsSayWhatIsMissing) {
    EXPECT_THAT(logged_messages([] { get_telemetry_pre_client_info(nullptr); }),
                ElementsAre("params is NULL"));
    EXPECT_THAT(logged_messages([] { get_telemetry_pre_client_info("02"); }),
                ElementsAre("clients num is 0"));
    telemetry_pre_collect.client_num = 1;
    EXPECT_THAT(logged_messages([] { get_telemetry_pre_client_info("02"); }),
                ElementsAre("pre client info is NULL"));
    telemetry_pre_collect.client_num = 0;
    EXPECT_THAT(logged_messages([] { telemetry_identify_iot_device_from_client_list(); }),
                ElementsAre("client list is not exist"));
    // The first record of an address has everything; a confirmed one is looked for behind it.
    fake_services["tfstats.get"] =
        tfstats(3, {{"1", "02"}, {"2", "02:00:00:02:00:01"}, {"3", "02:00:00:02:00:01"}});
    telemetry_get_client_list_from_tfstats();
    EXPECT_EQ(telemetry_find_client_by_mac("02-00-00-02-00-01"), &client(1));
    EXPECT_EQ(telemetry_find_client_by_mac("02"), &client(0));
    client(2).is_exist = 1;
    EXPECT_EQ(get_telemetry_pre_client_info("020000020001"), &client(2));
}

TEST_F(PreClientTest, MemoryIsBackAfterEveryCycle) {
    radio.stations["rax2"] = {station(1, 866)};
    telemetry_debug_enable = 0;
    telemetry_pre_clients_info(); // what is allocated once
    telemetry_free_pre_collect_info();
    const auto left_over = [](const char *service, const ServiceAnswer &answer) {
        auto services = fake_services;
        fake_services[service] = answer;
        fake_service_calls = {};
        radio.asked = {};
        const auto before = static_cast<int64_t>(allocated_bytes());
        telemetry_pre_clients_info();
        telemetry_free_pre_collect_info();
        fake_service_calls = {};
        radio.asked = {};
        const int64_t left = static_cast<int64_t>(allocated_bytes()) - before;
        fake_services.swap(services);
        return left;
    };
    EXPECT_EQ(left_over("tfstats.get", tfstats(4096, std::vector<TfsEntry>(4096, kThree[0]))), 0);
    EXPECT_EQ(left_over("tfstats.get", {R"({"total":"x"})"}), 0);
    for (const char *service : {"tfstats.get", "client_mgmt.get_myself", "client_mgmt.get", "sync.list"}) {
        EXPECT_EQ(left_over(service, {.error = TELEMETRY_BUS_CALL_FAILED}), 0) << service;
        EXPECT_EQ(left_over(service, {R"({"a":{"mac":"02:00:00:02:00:01","device_id":7},"b":[1,2,3]})"}), 0)
            << service;
    }
    telemetry_debug_enable = 1;
}
