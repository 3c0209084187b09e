// The collectors of settings and of files that other programs leave: what each reports, when, and what a
// source that is missing, empty, huge or garbage costs.
#include <functional>

#include <gmock/gmock.h>

#include "collect/collectors.h"
#include "collect/restart_info.h"
#include "sysroot.h"
#include "telemetry_handles.h"
#include "telemetry_json.h"
#include "telemetry_log.h"
#include "telemetry_pre_collect.h"
#include "telemetry_uci.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// A source: a configuration package, or a file when the name is a path.
struct Source {
    const char *name, *content;
};

struct Module {
    const char *name;
    TelemetryCollector collect;
    bool daily;          // only on strategy-2 cycles
    const char *feature; // section of the profile that it needs, or null
    std::vector<Source> sources;
    const char *reported; // first report
    uint32_t count;
    const char *repeated; // next report, nothing having changed
    uint32_t repeated_count;
    const char *broken;           // first report when no source can be read
    const char *empty;            // the same when all are empty
    std::function<void()> change; // of one setting
    const char *changed;          // part of the report after it
};

void set(const char *package, const char *section, const char *option, const char *value) {
    EXPECT_EQ(telemetry_set_uci_value(package, section, option, value, TELEMETRY_UCI_SYSTEM), 0);
}

const std::vector<Module> &modules() {
    static const std::vector<Module> all = {
        {"ecomode",
         collect_ecomode_info,
         false,
         "eco_mode",
         {{"eco_mode",
           "config eco settings\n option enable on\n option mode schedule\n option low_power_wifi 0\n"
           "config eco schedule\n option begin 23\n option end 6\n list days mon\n list days sun\n"}},
         R"({"en":1,"md":"schedule","sb":23,"se":6,"sd":["mon","sun"],"lw":0})",
         6,
         "{}",
         0,
         "{}",
         "{}",
         [] { set("eco_mode", "schedule", "begin", "22"); },
         R"({"en":1,"md":"schedule","sb":22,"se":6,"sd":["mon","sun"],"lw":0})"},
        {"iptv",
         collect_iptv_info,
         false,
         nullptr,
         {{"iptv", "config iptv iptv\n option enable 1\n option mode bridge\n option igmp_proxy 1\n"
                   " option igmp_snooping 0\n option igmp_version 3\n"
                   "config vlan vlan\n option internet_id 10\n option phone_id 20\n option tv_id 30\n"}},
         R"({"en":1,"md":"bridge","ip":1,"is":0,"iv":3,"vi":10,"vp":20,"vt":30})",
         8,
         "{}",
         0,
         "{}",
         "{}",
         // An option that is gone is left out.
         [] { set("iptv", "vlan", "phone_id", ""); },
         R"({"en":1,"md":"bridge","ip":1,"is":0,"iv":3,"vi":10,"vt":30})"},
        {"qos",
         collect_qos_info,
         false,
         nullptr,
         {{"qos", "config qos settings\n option enable 1\n option upload 40000\n option download 5000000000\n"
                  " option mode gaming\nconfig device\n option mac aa\nconfig device\nconfig application\n"}},
         R"({"en":1,"ub":40000,"db":5000000000.00,"um":"gaming","pn":2,"an":1})",
         6,
         "{}",
         0,
         "{}",
         R"({"pn":0,"an":0})",
         // The numbers stay as they were, and so unreported.
         [] { set("qos", "settings", "upload", "50000"); },
         R"({"en":1,"ub":50000,"db":5000000000.00,"um":"gaming"})"},
        {"quicksetup",
         collect_quicksetup_info,
         false,
         nullptr,
         {{"quicksetup", "config quicksetup quicksetup\n option done true\n option duration 312\n"
                         " option wan_detection auto\n option smart_connect off\n"},
          {"system",
           "config system basic\n option timezone UTC+1\n option language en_GB\n option hostname hush\n"}},
         R"({"done":1,"st":312,"wt":"auto","tz":"UTC+1","lang":"en_GB","smart":0})",
         6,
         "{}",
         0,
         "{}",
         "{}",
         [] { set("system", "basic", "language", "de"); },
         R"({"done":1,"st":312,"wt":"auto","tz":"UTC+1","lang":"de","smart":0})"},
        {"advanced",
         collect_advanced_info,
         true,
         nullptr,
         {{"openvpn", "config server server\n option enabled 1\n"},
          {"pptpd", "config server server\n option enabled off\n"},
          {"l2tp", "config server server\n option enabled 0\n"},
          {"ipsec", "config server server\n option enabled true\n"},
          {"network",
           "config interface wan\n option proto dhcp\nconfig interface wg0\n option proto wireguard\n"
           "config interface wg1\n option proto wireguard\n"},
          {"vpn",
           "config client client\n option enabled on\n option kind wireguard\nconfig server\nconfig server\n"
           "config device\n"},
          {"firewall",
           "config redirect\nconfig redirect\nconfig redirect\nconfig dmz dmz\n option enabled 1\n"},
          {"upnpd", "config upnpd config\n option enabled 1\n"},
          {"ddns", "config service a\n option enabled 0\nconfig service b\n option enabled on\n"}},
         R"({"ovs":1,"pps":0,"l2s":0,"ips":1,"wgs":1,"vc":1,"vk":"wireguard","vn":2,"vd":1,"pf":3,"dm":1,"up":1,"dd":1})",
         13,
         "{}",
         0,
         "{}",
         R"({"wgs":0,"vn":0,"vd":0,"pf":0,"dd":0})",
         [] { set("ddns", "b", "enabled", "0"); },
         R"({"ovs":1,"pps":0,"l2s":0,"ips":1,"wgs":1,"vc":1,"vk":"wireguard","vn":2,"vd":1,"pf":3,"dm":1,"up":1,"dd":0})"},
        {"restart",
         collect_restart_info,
         true,
         nullptr,
         {{"telemetry_info", "config info restart_info\n option reason upgrade\n option count 2\n"
                             " option timestamp 1754000000123\n"},
          {"restart_schedule",
           "config schedule schedule\n option enable 1\n list days sat\n list days sun\n"},
          {"/proc/uptime", "5000000000.99 1.5\n"},
          {"/tmp/telemetry/restart", "3\n"}},
         R"({"rr":"upgrade","rn":2,"rt":1754000000123.00,"rs":1,"rw":["sat","sun"],"ut":5000000000.00,"tn":3})",
         7,
         R"({"ut":5000000000.00,"tn":3})",
         2,
         "{}",
         "{}",
         [] { set("restart_schedule", "schedule", "days", "fri"); },
         R"({"rs":1,"rw":["fri"],"ut":5000000000.00,"tn":3})"},
        {"usb",
         collect_usb_info,
         false,
         nullptr,
         {{"usb", "config usb settings\n option usb_enable on\n"},
          {"/sys/bus/usb/devices/1-1/bDeviceClass", "00\n"},
          {"/sys/bus/usb/devices/1-1/idVendor", "1d6b\n"},
          {"/sys/bus/usb/devices/1-1/idProduct", "0104\n"},
          {"/sys/bus/usb/devices/1-1:1.0/bInterfaceClass", "08\n"}},
         R"({"ul":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","ue":1,"cc":1,"ut":1,"vi":"1d6b","pi":"0104"}]})",
         1,
         "{}",
         0,
         R"({"ul":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","ue":0,"cc":0,"ut":0}]})",
         R"({"ul":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","ue":0,"cc":0,"ut":0}]})",
         [] { set("usb", "settings", "usb_enable", "0"); },
         R"("ue":0,"cc":1,"ut":1,"vi":"1d6b","pi":"0104"}]})"},
        {"afc",
         collect_afc_info,
         true,
         "afc",
         {{"afc", "config afc afc\n option enable 1\n"},
          {"/tmp/afc/status",
           R"({"state":"granted","expires_in":7200,"latitude":48.1,"channels":[)"
           R"({"op_class":131,"channel":37,"max_eirp":30.5,"center":"hush"},{"op_class":1},"x"]})"}},
         R"({"al":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","en":1,"st":"granted","ex":7200,)"
         R"("cl":[{"oc":131,"ch":37,"pw":30.50}]}]})",
         1,
         R"({"al":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","en":1,"st":"granted","ex":7200,)"
         R"("cl":[{"oc":131,"ch":37,"pw":30.50}]}]})",
         1,
         R"({"al":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","en":0}]})",
         R"({"al":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","en":0}]})",
         [] {
             test_sysroot().write("/tmp/afc/status",
                                  R"({"state":"at 48.1 N","expires_in":"soon","channels":[]})");
         },
         R"({"al":[{"dm":"e359fe905bfbbfddf6e237cd09d724de","en":1,"cl":[]}]})"},
        {"havenguard",
         collect_havenguard_v2_info,
         true,
         nullptr,
         {{"havenguard",
           "config web web\n option enable 1\nconfig camera camera\n option enable 1\n"
           "config camera_device\nconfig isolation isolation\n option enable 0\nconfig isolated_device\n"
           "config isolated_device\nconfig application application\n option enable on\n"
           "config blocked_application\n"},
          {"access_control",
           "config settings settings\n option enable 1\n option mode deny\nconfig device\n"},
          {"parental",
           "config profile a\n option schedule 1\n option name hush\nconfig profile b\n option schedule on\n"
           " option time_limit 1\nconfig profile c\n option schedule 0\n"},
          {"/tmp/havenguard/stats", R"({"blocked_pages":73,"last":"hush"})"}},
         R"({"wp":1,"ac":1,"am":"deny","an":1,"cs":1,"cn":1,"di":0,"dn":2,"pn":3,"ps":2,"pt":1,"ab":1,"bn":1,"wb":73})",
         14,
         R"({"wb":73})",
         1,
         "{}",
         R"({"an":0,"cn":0,"dn":0,"pn":0,"ps":0,"pt":0,"bn":0})",
         [] { test_sysroot().write("/tmp/havenguard/stats", R"({"blocked_pages":74})"); },
         R"({"wb":74})"},
    };
    return all;
}

class FurtherInfo : public SysrootTest {
  protected:
    FurtherInfo() {
        telemetry_debug_level = TELEMETRY_LOG_ERROR;
        copy_text(ctx.dev_mac, "020000000101");
    }
    // An empty router with this module's sources.
    void lay_out(const Module &module) {
        root.clean();
        root.write_backup("");
        for (const Source &source : module.sources)
            write_source(source.name, source.content);
        if (module.feature != nullptr)
            root.write_profile(std::string("config ") + module.feature + "\n option support yes\n");
        ctx.collect_stgy2_now = module.daily ? 1 : 0;
    }
    void write_source(const char *name, const std::string &content) {
        root.write(name[0] == '/' ? name : "/etc/config/" + std::string(name), content);
    }
    std::string collect(const Module &module) {
        const JsonPtr payload(cJSON_CreateObject());
        count = 0;
        const OutputCapture capture;
        EXPECT_EQ(module.collect(&ctx, payload.get(), &count), 0);
        log = capture.text();
        return telemetry_json_print(payload.get()).get();
    }
    const Module &module_named(const std::string &name) {
        for (const Module &module : modules())
            if (name == module.name)
                return module;
        throw std::runtime_error(name);
    }

    TelemetryCtx ctx = {};
    uint32_t count = 0;
    std::string log;
};

TEST_F(FurtherInfo, EachReportsItsSettingsOnceAndAgainWhenOneChanged) {
    for (const Module &module : modules()) {
        SCOPED_TRACE(module.name);
        lay_out(module);
        EXPECT_EQ(collect(module), module.reported);
        EXPECT_EQ(count, module.count);
        EXPECT_THAT(module.reported, Not(HasSubstr("hush")));
        for (int cycle = 0; cycle < 3; ++cycle) {
            EXPECT_EQ(collect(module), module.repeated);
            EXPECT_EQ(count, module.repeated_count);
        }
        module.change();
        EXPECT_THAT(collect(module), HasSubstr(module.changed));
        collect(module);
        EXPECT_EQ(count, module.repeated_count);
    }
}

TEST_F(FurtherInfo, EachWaitsForItsCycleAndItsFeature) {
    for (const Module &module : modules()) {
        SCOPED_TRACE(module.name);
        if (module.daily) {
            lay_out(module);
            ctx.collect_stgy2_now = 0;
            EXPECT_EQ(collect(module), "{}");
        }
        if (module.feature != nullptr) {
            lay_out(module);
            root.write_profile(std::string("config ") + module.feature + "\n option support no\n");
            EXPECT_EQ(collect(module), "{}");
        }
        const OutputCapture quiet;
        count = 0;
        module.collect(&ctx, nullptr, &count);
        EXPECT_EQ(count, 0u);
    }
    // A profile that does not know the security suite is an old one, of a board that has it.
    const Module &havenguard = module_named("havenguard");
    for (const char *unsupported : {"no", "not yet"}) {
        lay_out(havenguard);
        root.write_profile(std::string("config tm_shn\n option support '") + unsupported + "'\n");
        EXPECT_EQ(collect(havenguard), "{}");
    }
    lay_out(havenguard);
    root.write_config("network", "config interface wan\n option wan_type dslite\n");
    EXPECT_EQ(collect(havenguard), "{}");
}

TEST_F(FurtherInfo, ABrokenSourceCostsItsMembersAndIsNamed) {
    const std::pair<const char *, std::string> contents[] = {
        {"empty", ""},
        {"garbage", std::string("\xff\x00{[\"\x01'\n;`reboot`", 18)},
        {"huge", std::string(300000, '9')},
        {"wrong values", R"({"state":7,"expires_in":{},"channels":{},"blocked_pages":"many"})"},
    };
    for (const Module &module : modules()) {
        // All sources at once.
        for (const auto &[kind, content] : contents) {
            SCOPED_TRACE(std::string(module.name) + ", all " + kind);
            lay_out(module);
            for (const Source &source : module.sources)
                write_source(source.name, content);
            const std::string report = collect(module);
            if (content.empty()) { // a package without sections is a state, too
                EXPECT_EQ(report, module.empty);
            } else if (std::string(module.name) ==
                       "usb") { // a device whose files say nonsense is still a device
                EXPECT_THAT(report, HasSubstr(R"("ue":0,"cc":0,"ut":4}])"));
                EXPECT_THAT(log, HasSubstr("usb id is not"));
            } else {
                EXPECT_EQ(report, module.broken);
                EXPECT_THAT(log, HasSubstr("[telemetry]["));
            }
            EXPECT_LT(log.size(), 8000u);
        }
        // One at a time, missing: the others' members stay.
        for (const Source &gone : module.sources) {
            SCOPED_TRACE(std::string(module.name) + " without " + gone.name);
            lay_out(module);
            root.remove(gone.name[0] == '/' ? gone.name : "/etc/config/" + std::string(gone.name));
            const std::string report = collect(module);
            EXPECT_NE(report, module.reported);
            EXPECT_LE(count, module.count);
            if (module.sources.size() > 1) {
                EXPECT_GT(count, 0u);
            }
        }
    }
}

TEST_F(FurtherInfo, HugeListsAreBounded) {
    const Module &afc = module_named("afc");
    lay_out(afc);
    std::string channels;
    for (int i = 0; i < 1000; ++i)
        channels += R"({"op_class":131,"channel":1,"max_eirp":1},)";
    root.write("/tmp/afc/status", R"({"channels":[)" + channels + "0]}");
    const std::string report = collect(afc);
    EXPECT_EQ(std::count(report.begin(), report.end(), '{'), 2 + 64);
    EXPECT_THAT(log, HasSubstr("more than 64 channels"));

    const Module &usb = module_named("usb");
    lay_out(usb);
    for (int i = 0; i < 600; ++i)
        root.write("/sys/bus/usb/devices/9-" + std::to_string(i) + "/bDeviceClass", "08\n");
    collect(usb);
    EXPECT_EQ(count, 1u);
    EXPECT_THAT(log, HasSubstr("more than 256 entries"));

    // A list counts up to its 128th character.
    const Module &eco = module_named("ecomode");
    lay_out(eco);
    std::string days = "config eco schedule\n";
    for (int i = 0; i < 200; ++i)
        days += " list days d" + std::to_string(100 + i) + "\n";
    root.write_config("eco_mode", days);
    EXPECT_THAT(collect(eco), HasSubstr(R"("d124"]})"));
    EXPECT_EQ(count, 1u);
}

struct UsbCase {
    const char *name;
    std::vector<Source> files; // below /sys/bus/usb/devices
    const char *entry;
};

TEST_F(FurtherInfo, UsbNamesTheFirstDeviceThatIsNoHub) {
    const UsbCase cases[] = {
        {"root hubs only", {{"usb1/bDeviceClass", "09"}, {"usb1/idVendor", "1d6b"}}, R"("ut":0}])"},
        {"a hub and behind it a printer",
         {{"1-1/bDeviceClass", "09\n"},
          {"1-1.2/bDeviceClass", "07\n"},
          {"1-1.2/idVendor", "03F0\n"},
          {"1-1.2/idProduct", "1f17\n"}},
         R"("ut":3,"vi":"03F0","pi":"1f17"}])"},
        {"a modem that brings its own drive",
         {{"2-1/bDeviceClass", "00"},
          {"2-1:1.0/bInterfaceClass", "08"},
          {"2-1:1.1/bInterfaceClass", "0a"},
          {"2-1/idVendor", "12d1"},
          {"2-1/idProduct", "1506"}},
         R"("ut":2,"vi":"12d1","pi":"1506"}])"},
        {"a camera, its interface of no known class, before a stick",
         {{"1-1/bDeviceClass", "ef"},
          {"1-1:1.0/bInterfaceClass", "0e"},
          {"1-2/bDeviceClass", "00"},
          {"1-2:1.0/bInterfaceClass", "08"}},
         R"("ut":4}])"},
        {"ids that are none",
         {{"1-1/bDeviceClass", "08"}, {"1-1/idVendor", "$(x)"}, {"1-1/idProduct", "12345"}},
         R"("ut":1}])"},
        {"an entry without a class",
         {{"1-1;reboot/idVendor", "1234"}, {"$(reboot)/idVendor", "1234"}},
         R"("ut":0}])"},
    };
    const Module &usb = module_named("usb");
    for (const UsbCase &usb_case : cases) {
        SCOPED_TRACE(usb_case.name);
        lay_out(usb);
        root.remove("/sys");
        for (const Source &file : usb_case.files)
            root.write(std::string("/sys/bus/usb/devices/") + file.name, file.content);
        EXPECT_THAT(collect(usb), HasSubstr(usb_case.entry));
    }
}

TEST_F(FurtherInfo, StartsOfTheDaemonAreCountedSinceBoot) {
    const std::pair<const char *, const char *> cases[] = {
        {nullptr, "1\n"},
        {"1\n", "2\n"},
        {"", "1\n"},
        {"-4\n", "1\n"},
        {"99999999999\n", "1\n"},
        {"x", "1\n"},
        {"2147483646\n", "2147483647\n"},
        {"2147483647\n", "1\n"},
    };
    for (const auto &[before, after] : cases) {
        root.write_backup("");
        root.remove("/tmp/telemetry/restart");
        if (before != nullptr)
            root.write("/tmp/telemetry/restart", before);
        const OutputCapture quiet;
        telemetry_count_daemon_start();
        EXPECT_EQ(root.read("/tmp/telemetry/restart"), after) << (before == nullptr ? "none" : before);
    }
    root.remove("/tmp/telemetry");
    const OutputCapture capture;
    telemetry_count_daemon_start();
    EXPECT_TRUE(capture.has("open file /tmp/telemetry/restart failed"));
    std::filesystem::create_directories(root.path("/tmp/telemetry"));
    std::filesystem::create_symlink("/dev/full", root.path("/tmp/telemetry/restart"));
    telemetry_count_daemon_start();
    EXPECT_TRUE(capture.has("write file /tmp/telemetry/restart failed"));
}

} // namespace
