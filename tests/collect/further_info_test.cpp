// The collectors of settings and of files that other programs leave: what each reports, when, what a source
// that is missing, empty, huge or garbage costs, and what satellites may answer.
#include <sstream>

#include <sys/stat.h>

#include "collector_test.h"
#include "fake_services.h"
#include "restart_info.h"
#include "telemetry_memory.h"
#include "telemetry_uci_package.h"
#include "usb_info.h"

using ::testing::HasSubstr;

namespace {

struct Source {
    std::string name, content; // as CollectorTest::put() takes them
};

struct Module {
    struct {
        TelemetryCollector collect;
        bool daily;          // only on strategy-2 cycles
        const char *feature; // section of the profile that it needs, or null
    } head;
    std::vector<Source> sources;
    const char *reported; // first report
    // A change in one source, and the report after it.
    struct {
        std::string from, to;
        const char *reported;
    } change;
    const char *empty = "{}";    // first report when all sources are empty
    const char *broken = "{}";   // the same when none can be read
    const char *repeated = "{}"; // when nothing changed
};

#define OWN R"("dm":"e359fe905bfbbfddf6e237cd09d724de")"       // digest of 02-00-00-00-01-01, this node
#define SATELLITE R"("dm":"b0e3edb0ed86c1a7247247027bd945cd")" // of 02-00-00-00-01-02
#define GRANTED \
    R"({"al":[{)" OWN R"(,"en":1,"st":"granted","ex":7200,"cl":[{"oc":131,"ch":37,"pw":30.50}]}]})"

const Module kEcoMode = {
    {collect_ecomode_info, false, "eco_mode"},
    {{"eco_mode", "config eco settings;option enable yes;option mode schedule;option low_power_wifi 0;"
                  "config eco schedule;option begin 23;option end 6;list days mon;list days sun;"}},
    R"({"en":1,"md":"schedule","sb":23,"se":6,"sd":["mon","sun"],"lw":0})",
    {"begin 23", "begin 22", R"({"en":1,"md":"schedule","sb":22,"se":6,"sd":["mon","sun"],"lw":0})"}};

// An option that is gone is left out.
const Module kIptv = {
    {collect_iptv_info, false, nullptr},
    {{"iptv",
      "config iptv iptv;option enable 1;option mode bridge;option igmp_proxy 1;option igmp_snooping 0;"
      "option igmp_version 3;config vlan vlan;option internet_id 10;option phone_id 20;option tv_id 30;"}},
    R"({"en":1,"md":"bridge","ip":1,"is":0,"iv":3,"vi":10,"vp":20,"vt":30})",
    {"option phone_id 20", "", R"({"en":1,"md":"bridge","ip":1,"is":0,"iv":3,"vi":10,"vt":30})"}};

// The numbers of sections stay as they were, and so unreported.
const Module kQos = {
    {collect_qos_info, false, nullptr},
    {{"qos", "config qos settings;option enable 1;option upload 40000;option download 5000000000;"
             "option mode gaming;config device;option mac hush;config device;config application;"}},
    R"({"en":1,"ub":40000,"db":5000000000.00,"um":"gaming","pn":2,"an":1})",
    {"40000", "50000", R"({"en":1,"ub":50000,"db":5000000000.00,"um":"gaming"})"},
    R"({"pn":0,"an":0})"};

const Module kQuicksetup = {
    {collect_quicksetup_info, false, nullptr},
    {{"quicksetup", "config quicksetup quicksetup;option done true;option duration 312;"
                    "option wan_detection auto;option smart_connect off;"},
     {"system", "config system basic;option timezone UTC+1;option language en_GB;option hostname hush;"}},
    R"({"done":1,"st":312,"wt":"auto","tz":"UTC+1","lang":"en_GB","smart":0})",
    {"en_GB", "de", R"({"done":1,"st":312,"wt":"auto","tz":"UTC+1","lang":"de","smart":0})"}};

#define VPN \
    R"({"ovs":1,"pps":0,"l2s":0,"ips":1,"wgs":1,"vc":1,"vk":"wireguard","vn":2,"vd":1,"pf":2,"dm":1,"up":1,)"
const Module kAdvanced = {
    {collect_advanced_info, true, nullptr},
    {{"openvpn", "config server server;option enabled enabled;"},
     {"pptpd", "config server server;option enabled disabled;"},
     {"l2tp", "config server server;option enabled 0;"},
     {"ipsec", "config server server;option enabled true;"},
     {"network", "config interface wan;option proto dhcp;config interface wg0;option proto wireguard;"
                 "option listen_port 51820;"},
     {"vpn", "config client client;option enabled on;option kind wireguard;config server;config server;"
             "config device;"},
     {"firewall", "config redirect;config redirect;option target DNAT;option enabled 1;config "
                  "redirect;option target SNAT;"
                  "config redirect;option target DNAT;option enabled off;config dmz dmz;option enabled 1;"},
     {"upnpd", "config upnpd config;option enabled 1;"},
     {"ddns", "config service a;option enabled 0;config service b;option enabled on;"}},
    VPN R"("dd":1})",
    {"b;option enabled on", "b;option enabled 0", VPN R"("dd":0})"},
    R"({"wgs":0,"vn":0,"vd":0,"pf":0,"dd":0})"};

const Module kRestart = {
    {collect_restart_info, true, nullptr},
    {{"telemetry_info", "config info restart_info;option reason upgrade;option count 2;"
                        "option timestamp 1754000000123;"},
     {"restart_schedule", "config schedule schedule;option enable 1;list days sat;list days sun;"},
     {"/proc/uptime", "5000000000.99 1.5\n"},
     {"/tmp/telemetry/restart", "3\n"}},
    R"({"rr":"upgrade","rn":2,"rt":1754000000123.00,"rs":1,"rw":["sat","sun"],"ut":5000000000.00,"tn":3})",
    {"list days sat;list days sun", "list days fri", R"({"rs":1,"rw":["fri"],"ut":5000000000.00,"tn":3})"},
    "{}",
    "{}",
    R"({"ut":5000000000.00,"tn":3})"};

#define NO_USB R"({"ul":[{)" OWN R"(,"cc":0,"ut":0}]})"
const Module kUsb = {{collect_usb_info, false, nullptr},
                     {{"usb", "config usb settings;option usb_enable on;"}},
                     R"({"ul":[{)" OWN R"(,"ue":1,"cc":1,"ut":0}]})",
                     {" on", " 0", R"({"ul":[{)" OWN R"(,"ue":0,"cc":1,"ut":0}]})"},
                     NO_USB,
                     NO_USB};

const Module kAfc = {
    {collect_afc_info, true, "afc"},
    {{"afc", "config afc afc;option enable 1;"},
     {"/tmp/afc/status",
      R"({"state":"granted","expires_in":7200,"latitude":48.1,"channels":[)"
      R"({"op_class":131,"channel":37,"max_eirp":30.5,"center":"hush"},{"op_class":1},{"channel":1e300},"x"]})"}},
    GRANTED,
    {R"("granted","expires_in":7200)", R"("at 48.1 N","expires_in":1e999)",
     R"({"al":[{)" OWN R"(,"en":1,"cl":[{"oc":131,"ch":37,"pw":30.50}]}]})"},
    R"({"al":[{)" OWN R"(}]})",
    R"({"al":[{)" OWN R"(}]})",
    GRANTED};

const Module kHavenguard = {
    {collect_havenguard_v2_info, true, nullptr},
    {{"havenguard",
      "config web web;option enable 1;config camera camera;option enable 1;config camera_device;"
      "config isolation isolation;option enable 0;config isolated_device;config isolated_device;"
      "config application application;option enable on;config blocked_application;"},
     {"access_control", "config settings settings;option enable 1;option mode deny;config device;"},
     {"parental", "config profile a;list schedule mon;list schedule tue;option name hush;config profile "
                  "b;option schedule mon-fri;"
                  "option time_limit 120;config profile c;option schedule off;option time_limit 0;"},
     {"/tmp/havenguard/stats", R"({"blocked_pages":73,"last":"hush"})"}},
    R"({"wp":1,"ac":1,"am":"deny","an":1,"cs":1,"cn":1,"di":0,"dn":2,"pn":3,"ps":2,"pt":1,"ab":1,"bn":1,"wb":73})",
    {"73", "74", R"({"wb":74})"},
    R"({"an":0,"cn":0,"dn":0,"pn":0,"ps":0,"pt":0,"bn":0})",
    "{}",
    R"({"wb":73})"};

const Module *const kModules[] = {&kEcoMode, &kIptv, &kQos, &kQuicksetup, &kAdvanced,
                                  &kRestart, &kUsb,  &kAfc, &kHavenguard};

class FurtherInfo : public CollectorTest {
  protected:
    FurtherInfo() {
        copy_text(ctx.dev_mac, "020000000101");
    }
    // An empty router with this module's sources, and a mesh of many nodes of which the others answer this.
    void lay_out(const Module &module, const char *support = "yes", const std::string &answer = "") {
        root.clean();
        root.write_backup("");
        for (const Source &source : module.sources)
            put(source.name, source.content);
        if (module.head.feature != nullptr)
            root.write_profile(std::string("config ") + module.head.feature + "\n option support " + support);
        ctx.collect_stgy2_now = module.head.daily ? 1 : 0;
        fake_services.clear();
        telemetry_free_device_info_list();
        if (answer.empty())
            return;
        telemetry_init_device_info_list(3);
        for (int i = 0; i < 3; ++i)
            copy_text(telemetry_get_device_info_list()[i].mac,
                      ("02-00-00-00-01-0" + std::to_string(1 + i)).c_str());
        fake_services["sync.request"].json = answer;
    }
    // The report; its count is one a member, or one an entry of a list of nodes.
    std::string collect(const Module &module) {
        const std::string text = CollectorTest::collect(module.head.collect);
        const JsonPtr payload(cJSON_Parse(text.c_str()));
        const cJSON *first = payload->child;
        const bool nodes = first != nullptr && first->string[1] == 'l' && cJSON_IsArray(first);
        EXPECT_EQ(count, static_cast<uint32_t>(cJSON_GetArraySize(nodes ? first : payload.get())));
        EXPECT_LT(log.size(), 8000u);
        return text;
    }
    std::string collect(const Module &module, const std::string &answer) {
        lay_out(module, "yes", answer);
        return collect(module);
    }
};

TEST_F(FurtherInfo, EachReportsItsSettingsOnceAndAgainWhenOneChanged) {
    for (const Module *module : kModules) {
        SCOPED_TRACE(module->reported);
        lay_out(*module);
        { // nothing counts as reported yet
            const OutputCapture quiet;
            module->head.collect(&ctx, nullptr, &count);
            module->head.collect(&ctx, JsonPtr(cJSON_CreateObject()).get(), nullptr);
        }
        ctx.collect_stgy2_now = 0;
        if (module->head.daily) {
            EXPECT_EQ(collect(*module), "{}");
        }
        ctx.collect_stgy2_now = module->head.daily ? 1 : 0;
        EXPECT_EQ(collect(*module), module->reported);
        for (int cycle = 0; cycle < 2; ++cycle)
            EXPECT_EQ(collect(*module), module->repeated);
        for (const Source &source : module->sources)
            if (source.content.find(module->change.from) != std::string::npos)
                put(source.name, replaced(source.content, module->change.from, module->change.to));
        EXPECT_EQ(collect(*module), module->change.reported);
        lay_out(*module, "no");
        EXPECT_EQ(collect(*module), module->head.feature != nullptr ? "{}" : module->reported);
    }
    // A profile that does not know the security suite is an old one, of a board that has it.
    for (const Source &source : {Source{"/etc/profile.d/profile", "config tm_shn\n option support 'not yet'"},
                                 {"network", "config interface wan; option wan_type dslite"}}) {
        lay_out(kHavenguard);
        put(source.name, source.content);
        EXPECT_EQ(collect(kHavenguard), "{}");
    }
}

TEST_F(FurtherInfo, ABrokenSourceCostsItsMembersAndIsNamed) {
    const std::string contents[] = {
        "",
        std::string("\xff\x00{[\"\x01'\n:`reboot`", 18),
        std::string(300000, '9'),
        R"({"state":7,"expires_in":{},"channels":{},"blocked_pages":"many"})",
    };
    for (const Module *module : kModules) {
        SCOPED_TRACE(module->reported);
        for (const std::string &content : contents) {
            lay_out(*module);
            for (const Source &source : module->sources)
                put(source.name, content);
            // A package without sections is a state, too.
            EXPECT_EQ(collect(*module), content.empty() ? module->empty : module->broken);
            EXPECT_TRUE(content.empty() || log.find("[telemetry][") != std::string::npos);
            for (const Source &source : module->sources)
                put(source.name, source.content);
            EXPECT_EQ(collect(*module), module->reported);
        }
    }
}

TEST_F(FurtherInfo, HugeListsAreBounded) {
    lay_out(kAfc);
    std::string channels;
    for (int i = 0; i < 1000; ++i)
        channels += R"({"op_class":131,"channel":1,"max_eirp":1},)";
    put("/tmp/afc/status", R"({"channels":[)" + channels + "0]}");
    const std::string report = collect(kAfc);
    EXPECT_EQ(std::count(report.begin(), report.end(), '{'), 2 + 64);
    EXPECT_THAT(log, HasSubstr("more than 64 channels"));

    lay_out(kUsb);
    for (int i = 0; i < 300; ++i)
        root.write("/sys/bus/usb/devices/9-" + std::to_string(i) + "/bDeviceClass", "08\n");
    collect(kUsb);
    EXPECT_THAT(log, HasSubstr("more than 256 entries"));
}

TEST_F(FurtherInfo, OtherFormsOfASettingMeanWhatTheyMean) {
    const struct {
        const Module &module;
        std::string from, to; // in the sources
        const char *reported;
        const char *line; // of the log
    } cases[] = {
        {kIptv, "igmp_snooping 0", "igmp_snooping maybe",
         R"({"en":1,"md":"bridge","ip":1,"iv":3,"vi":10,"vp":20,"vt":30})",
         "iptv.iptv.igmp_snooping is neither on nor off"},
        {kUsb, " on", " TRUE", OWN R"(,"cc":1,"ut":0})", "usb.settings.usb_enable is neither on nor off"},
        {kHavenguard, "73", "-73", R"("bn":1})", "blocked_pages"},
        // A client of WireGuard; a server that is off.
        {kAdvanced, "option listen_port 51820", "option mtu 1420", R"("wgs":0)", ""},
        {kAdvanced, "51820", "51820;option disabled 1", R"("wgs":0)", ""},
        {kQuicksetup, "config system basic;option timezone UTC+1",
         "config system;option timezone UTC;config x basic", R"("tz":"UTC","lang":"en_GB")", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.to);
        lay_out(c.module);
        for (const Source &source : c.module.sources)
            put(source.name, replaced(source.content, c.from, c.to));
        EXPECT_THAT(collect(c.module), HasSubstr(c.reported));
        EXPECT_THAT(log, HasSubstr(c.line));
    }
}

TEST_F(FurtherInfo, UsbNamesTheFirstDeviceThatIsNoHub) {
    // Files below /sys/bus/usb/devices.
    const std::pair<std::string, const char *> cases[] = {
        {"usb1/bDeviceClass=09 usb1/idVendor=1d6b", R"("ut":0}])"},
        {"1-1/bDeviceClass=09 1-1.2/bDeviceClass=07 1-1.2/idVendor=03F0 1-1.2/idProduct=1f17",
         R"("ut":3,"vi":"03F0","pi":"1f17"}])"},
        // A modem that brings its own drive; a camera, its interface of no known class, before a stick.
        {"2-1/bDeviceClass=00 2-1:1.0/bInterfaceClass=08 2-1:1.1/bInterfaceClass=ff", R"("ut":2}])"},
        {"1-1/bDeviceClass=e0 1-1:1.0/bInterfaceClass=e0 1-1:1.0/bInterfaceSubClass=01 "
         "1-1:1.0/bInterfaceProtocol=03",
         R"("ut":2}])"},
        {"1-1/bDeviceClass=ff 1-1:1.4/bInterfaceClass=ff 1-1:1.4/driver=qmi_wwan", R"("ut":2}])"},
        // Bluetooth; a camera before a stick.
        {"1-1/bDeviceClass=e0 1-1:1.0/bInterfaceClass=e0 1-1:1.0/bInterfaceSubClass=01 "
         "1-1:1.0/bInterfaceProtocol=01",
         R"("ut":4}])"},
        {"1-1/bDeviceClass=ef 1-1:1.0/bInterfaceClass=0e 1-2/bDeviceClass=00 1-2:1.0/bInterfaceClass=08",
         R"("ut":4}])"},
        {"1-1/bDeviceClass=08 1-1/idVendor=$(x) 1-1/idProduct=12345", R"("ut":1}])"},
    };
    for (const auto &[files, entry] : cases) {
        SCOPED_TRACE(files);
        lay_out(kUsb);
        std::istringstream words(files);
        for (std::string word; words >> word;) {
            const std::string path = "/sys/bus/usb/devices/" + word.substr(0, word.find('='));
            const std::string value = word.substr(word.find('=') + 1);
            if (path.ends_with("/driver"))
                std::filesystem::create_symlink("../../drivers/" + value, root.path(path));
            else
                root.write(path, value + "\n");
        }
        EXPECT_THAT(collect(kUsb), HasSubstr(entry));
    }
}

TEST_F(FurtherInfo, AChangeWhoseRecordIsGivenUpIsInTheNextWhoeverAsksMeanwhile) {
    for (const bool seen : {true, false}) { // by the record that is given up
        lay_out(kUsb);
        {
            const TelemetryUciScope given_up;
            if (!seen)
                put("usb", "");
            EXPECT_EQ(collect(kUsb), seen ? kUsb.reported : NO_USB);
            telemetry_memory_refused();
        }
        put("usb", kUsb.sources[0].content);
        UsbInfoRecord answer;
        for (const int changed : {1, 0}) {
            EXPECT_EQ(collect_myself_usb_info(&answer), 0);
            EXPECT_EQ(answer.config_is_change, changed);
        }
        EXPECT_EQ(collect(kUsb), kUsb.reported);
        EXPECT_EQ(collect(kUsb), "{}");
    }
}

TEST_F(FurtherInfo, SatellitesAreListedOnceAndOnlyByWhatIsKnown) {
    const std::string satellite = R"({"result":{"usb_enable":1,"usb_type":9,"vendor_id":"0781",)"
                                  R"("product_id":"not hex","mac":"02-00-00-00-01-02"}})";
    const std::string own = R"({"result":{"usb_enable":1,"usb_type":2,"mac":"02:00:00:00:01:01"}})";
    lay_out(kUsb, "yes",
            R"({"success":4,"data":[)" + satellite + "," + own +
                // one without an address, one of no node of the mesh
                R"(,{"result":{"usb_enable":1}},{"result":{"usb_enable":1,"mac":"02-00-00-00-01-09"}}]})");
    put("usb", "");
    EXPECT_EQ(collect(kUsb),
              R"({"ul":[{)" OWN R"(,"cc":0,"ut":0},{)" SATELLITE R"(,"ue":1,"cc":0,"ut":4,"vi":"0781"}]})");
    EXPECT_EQ(fake_service_calls.back().arguments,
              R"({"opcode":50949,"target_type":"RE","include_myself":true,"data":{}})");
    // Answers in another order, and a change that is over, are no news.
    const auto other = [](const char *changed) {
        return std::string(R"({"result":{"usb_enable":0,"config_is_change":)") + changed +
               R"(,"mac":"020000000103"}})";
    };
    EXPECT_NE(collect(kUsb, R"({"success":2,"data":[)" + satellite + "," + other("1") + "]}"), "{}");
    fake_services["sync.request"].json = R"({"success":2,"data":[)" + other("0") + "," + satellite + "]}";
    EXPECT_EQ(collect(kUsb), "{}");
    EXPECT_THAT(collect(kAfc,
                        R"({"success":1,"data":{"result":{"en":"yes","st":"48.1 N","ex":60,"lat":1.5,"cl":[)"
                        R"({"oc":131,"ch":5,"pw":30,"lat":2.5},{"ch":"6"},[]],"mac":"02-00-00-00-01-02"}}})"),
                HasSubstr(R"(},{)" SATELLITE R"(,"ex":60,"cl":[{"oc":131,"ch":5,"pw":30}]}]})"));
    EXPECT_EQ(fake_service_calls.back().arguments,
              R"({"opcode":50952,"target_type":"RE","include_myself":true,"data":{}})");
}

TEST_F(FurtherInfo, WhatSatellitesAnswerWronglyCostsThatAnswer) {
    const std::string huge(100000, '9');
    for (const Module *module : {&kUsb, &kAfc}) {
        EXPECT_EQ(collect(*module, R"({"success":1,"data":{"result":{"mac":7}}})"), module->reported);
        EXPECT_THAT(log, HasSubstr("[telemetry]["));
        const std::string report =
            collect(*module, R"({"success":1,"data":{"result":{"mac":"020000000102","usb_enable":"1",)"
                             R"("usb_type":1e300,"vendor_id":")" +
                                 huge + R"(","product_id":{},"en":[],"st":")" + huge +
                                 R"(","ex":1e300,"cl":)" + huge + "}}}");
        EXPECT_LT(report.size(), 300u);
        EXPECT_EQ(count, 2u);
        fake_services.clear();
        collect(*module);
        EXPECT_THAT(log, HasSubstr("info failed"));
    }
}

TEST_F(FurtherInfo, StartsOfTheDaemonAreCountedSinceBoot) {
    const char kPath[] = "/tmp/telemetry/restart";
    const OutputCapture capture;
    root.write_backup("");
    telemetry_count_daemon_start();
    EXPECT_EQ(root.read(kPath), "1\n");
    const std::pair<const char *, const char *> cases[] = {{"1\n", "2\n"},
                                                           {"", "1\n"},
                                                           {"99999999999\n", "1\n"},
                                                           {"x", "1\n"},
                                                           {"2147483646\n", "2147483647\n"},
                                                           {"2147483647\n", "1\n"}};
    for (const auto &[before, after] : cases) {
        root.write(kPath, before);
        telemetry_count_daemon_start();
        EXPECT_EQ(root.read(kPath), after) << before;
    }
    // A pipe that nobody reads does not hold the start up.
    root.remove(kPath);
    mkfifo(root.path(kPath).c_str(), 0600);
    telemetry_count_daemon_start();
    EXPECT_TRUE(capture.has("open file /tmp/telemetry/restart failed"));
    root.remove(kPath);
    std::filesystem::create_symlink("/dev/full", root.path(kPath));
    telemetry_count_daemon_start();
    EXPECT_TRUE(capture.has("write file /tmp/telemetry/restart failed"));
}

} // namespace
