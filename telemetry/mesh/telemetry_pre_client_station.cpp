// Radio details of this node's clients, from the Wi-Fi driver.
#include "telemetry_pre_client.h"

#include <cstring>
#include <memory>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_utils.h"

using StationArray = std::unique_ptr<ClientStaInfo, HandleRelease<free>>;

// Takes out what a repeated query of the same interface added again: entries from `added` on whose MAC stands
// between `begin` and `added`.
static void drop_repeated_stations(ClientStaList *list, uint32_t begin, uint32_t added, uint32_t *found) {
    uint32_t kept = added;
    for (uint32_t i = added; i < *found; ++i) {
        bool repeated = false;
        for (uint32_t j = begin; j < added && !repeated; ++j)
            repeated =
                memcmp(list->stations[i].mac, list->stations[j].mac, sizeof(list->stations[i].mac)) == 0;
        if (!repeated)
            list->stations[kept++] = list->stations[i];
    }
    *found = kept;
}

int telemetry_get_client_sta_info(ClientStaList *list, uint32_t *found) {
    if (list == nullptr || found == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    int result = 0;
    *found = 0;
    for (int band = 0; band < kStationBands; ++band) {
        char ifname[16] = {};
        uint32_t ifname_begin = *found;
        for (int type = 0; type < kNetworkTypes; ++type) {
            const uint32_t added = *found;
            // A network type without an interface leaves the name of the one before, which is then asked
            // again.
            const bool named = wlan_get_band_if_name(band, type, ifname, sizeof(ifname)) == 1;
            if (named) {
                ifname_begin = added;
            } else {
                LOG_ERROR("get band ifname failed");
                result = -1;
            }
            if (wlan_get_band_client_sta_info(ifname, list, found) != 1) {
                LOG_ERROR("get client sta info  failed ifname:%s", ifname);
                result = -1;
            }
            if (!named)
                drop_repeated_stations(list, ifname_begin, added, found);
        }
    }
    return result;
}

static void apply_station(const ClientStaInfo *station) {
    char text[13] = {};
    char mac[kMacTextSize] = {};
    const uint8_t *address = station->is_mlo == 1 ? station->mld_mac : station->mac;
    if (mac_uint8_to_char(text, sizeof(text), address, sizeof(station->mac)) != 0 ||
        mac_to_upper_short_line(mac, text) != 0)
        return;
    PreClientInfo *client = telemetry_find_client_by_mac(mac);
    if (client == nullptr)
        return;
    client->is_mlo = station->is_mlo != 0 ? 1 : 0;
    client->phymode = station->phymode;
    client->rxrate = station->rxrate;
    client->txrate = station->txrate;
}

int telemetry_get_client_sta_list() {
    int32_t *myself = &telemetry_pre_collect.myself_client_num;
    if (telemetry_get_myself_client_num(myself) != 0)
        return -1;
    LOG_DEBUG("myself_clients_num is %d", *myself);
    if (*myself == 0)
        return 0;
    const StationArray stations(telemetry_zeroed<ClientStaInfo>(kStationCapacity));
    if (!stations) {
        LOG_ERROR("malloc failed");
        return -1;
    }
    ClientStaList list = {static_cast<uint8_t>(*myself), kStationCapacity, stations.get()};
    uint32_t found = 0;
    // A name or query that failed has been logged; what the others gave is good.
    telemetry_get_client_sta_info(&list, &found);
    for (uint32_t i = 0; i < found; ++i)
        apply_station(&list.stations[i]);
    return 0;
}
