// What the Wi-Fi driver answers: station table, uplink record, one-byte answers. The first byte chooses;
// ioctl() is the one of this file and copies the input.
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <linux/wireless.h>
#include <vector>

#include "telemetry_platform_mtk.h"
#include "support/fuzz_root.h"
#include "telemetry_log.h"

namespace {

struct Input {
    const uint8_t *data;
    size_t size;

    uint8_t byte() {
        if (size == 0)
            return 0;
        size--;
        return *data++;
    }
};

Input answer;
uint16_t answered;

void stations(Input &input) {
    answered = static_cast<uint16_t>(input.byte() << 8);
    answered = static_cast<uint16_t>(answered | input.byte());
    const uint32_t capacity = input.byte();
    const uint32_t used = input.byte();
    answer = input;
    // Exactly the room that the list tells, so that an entry too many is seen.
    std::vector<ClientStaInfo> room(capacity);
    ClientStaList list = {0, capacity, room.data()};
    uint32_t count = used;
    wlan_get_band_client_sta_info("rax2", &list, &count);
    require(count >= used && count - used <= kMtkStationRoom && (count == used || count <= capacity));
}

void uplink(Input &input) {
    answered = input.byte();
    answer = input;
    BackhaulStats stats = {};
    uint8_t byte = 0;
    uint32_t number = 0;
    double temperature = 0;
    wlan_get_uplink_rate("apcli0", &stats, &byte);
    wlan_get_channel_util("apcli0", &byte, 2, 1);
    wlan_get_wifi_bandwidth(&number);
    wlan_get_device_temperature("wifi0", &temperature);
}

} // namespace

extern "C" int ioctl(int, unsigned long, ...) noexcept;
extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    if (request != kMtkPrivateRequest)
        return -1;
    va_list arguments;
    va_start(arguments, request);
    iwreq *block = va_arg(arguments, iwreq *);
    va_end(arguments);
    std::copy_n(answer.data, std::min<size_t>(answer.size, block->u.data.length),
                static_cast<uint8_t *>(block->u.data.pointer));
    block->u.data.length = answered;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    telemetry_debug_enable = 0;
    Input input = {data, size};
    if (input.byte() % 2 == 0)
        stations(input);
    else
        uplink(input);
    return 0;
}
