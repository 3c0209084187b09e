// The devices that `iwinfo` knows, joined with what package `wireless` says of them; and its questions.
#pragma once

#include <string>
#include <vector>

#include "telemetry_handles.h"

struct IwinfoDevice {
    std::string name;
    std::string ssid;
    std::string htmode;
    int band;    // 0: 2.4 GHz, 1: 5 GHz, 2: 6 GHz, -1: unknown
    int channel; // 0: unknown
    double mhz;
    int network_type; // of an access point: 0 host, 1 guest, 2 IoT; -1: none, or no access point
    bool is_station;  // an uplink
};

// The list is asked for anew when it is older than some seconds: the questions of one cycle share it. One
// that could not be had stays missing for as long, so that a slow service is waited for once.
bool iwinfo_is_there();
// Null where there is none. `network_type` -1: any access point of the band.
const IwinfoDevice *iwinfo_find_ap(int band, int network_type);
const IwinfoDevice *iwinfo_find_station(int band);
const IwinfoDevice *iwinfo_find_device(const char *name);
// The device itself, and the other access points of its band and network.
std::vector<std::string> iwinfo_aps_like(const char *name);
// The `results` of a method for a device; null, with a line, when there are none.
JsonPtr iwinfo_ask(const char *device, const char *method);
void iwinfo_forget_devices();
