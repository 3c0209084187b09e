// A mesh whose Wi-Fi is told through iwinfo, and a router that has nothing of the maker's.
#include <gmock/gmock.h>

#include "home_lab.h"

namespace {

TEST(Iwinfo, ASameMeshMakesTheSameRecords) {
    HomeLab home("{}", "home_iwinfo");
    home.lab.node().write("/tmp/cloud_heartbeat_timeout_count", "4\n");
    const std::vector<UploadedRecord> records = home.cycle();
    const lab::JsonTree golden =
        lab::parse_json(lab::read_file(TEST_SOURCE_DIR "/tests/golden/home_upload.json"), "golden");
    size_t compared = 0;
    const cJSON *record = nullptr;
    cJSON_ArrayForEach(record, cJSON_GetObjectItemCaseSensitive(golden.get(), "el")) {
        const std::string eid = lab::json_text(record, "eid");
        const std::string sent = payload(records, eid);
        ASSERT_NE(sent, "") << eid;
        EXPECT_EQ(lab::print_json(lab::parse_json(sent, eid).get()),
                  lab::print_json(cJSON_GetObjectItemCaseSensitive(record, "ep")));
        compared++;
    }
    EXPECT_EQ(compared, records.size());
    EXPECT_EQ(home.stop(), "");
}

TEST(Iwinfo, AStockSystemReportsWhatItHas) {
    HomeLab stock("{}", "stock");
    std::string eids;
    for (const UploadedRecord &record : stock.cycle())
        eids += record.eid + " ";
    EXPECT_EQ(eids, "internet_info quicksetup_info wireless_host_info wireless_guest_info wireless_iot_info "
                    "advanced_info restart_info usb_info ");
    EXPECT_EQ(stock.stop(), "");
}

} // namespace
