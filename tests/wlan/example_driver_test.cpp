// The driver of docs/porting.md is built as printed and answers behind the table.
#include "../docs/example_driver.cpp"

#include <fstream>

#include "sysroot.h"

TEST_F(SysrootTest, TheExampleDriverStandsOnThePageAsItIsBuilt) {
    const auto file = [](const char *name) {
        std::ifstream text(std::string(TEST_SOURCE_DIR) + name);
        return std::string(std::istreambuf_iterator<char>(text), {});
    };
    const std::string example = file("/docs/example_driver.cpp");
    ASSERT_FALSE(example.empty());
    EXPECT_NE(file("/docs/porting.md").find("```cpp\n" + example + "```\n"), std::string::npos);

    root.write("/sys/kernel/acme/radio1/channel", "44\n");
    wlan_platform_ops = &wlan_platform_ops_acme;
    uint32_t channel = 0;
    EXPECT_EQ(wlan_get_backhaul_ap_channel(1, &channel), 1);
    EXPECT_EQ(channel, 44u);
    EXPECT_EQ(wlan_get_backhaul_ap_channel(0, &channel) + wlan_get_wifi_bandwidth(&channel), 0);
    wlan_platform_ops = &wlan_platform_ops_mtk;
}
