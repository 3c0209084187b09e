// Load, memory, temperatures and connections of a node: measured here for this node, gathered from the
// satellites.
#pragma once

#include <cstdint>

#include <cjson/cJSON.h>

#include "telemetry_platform_libs.h"

struct SystemInfoRecord {
    char mac[18];
    char work_mode[128];
    double cpu_usage;  // percent, -1 unknown
    double cpu_freq;   // kHz, as the kernel tells
    double mem_total;  // kB
    double mem_usage;  // percent
    double mem_free;   // kB
    double wifi0_temp; // -1 unknown
    double wifi1_temp;
    double wifi2_temp;
    int32_t cpu_temp;
    int32_t nat_num;
    int32_t lowpower_associate_time;
    int32_t lowpower_associate_duration;
};

// Records of a cycle, one a mesh node.
struct SystemInfoList {
    SystemInfoRecord *records;
    int count;
};

// This node's figures except the low-power pair, item by item of the collector's table. Blocks for 3 seconds.
// 0, or -1 for a null record.
int collect_data_for_system_info(SystemInfoRecord *record);
// The low-power pair, from bus object "low_power". 1 when its "res" is "success" and the pair was kept, else
// 0.
int collect_data_for_lowpower_info(SystemInfoRecord *record);
// Memory: 0 total in kB, 1 usage in percent, 2 free in kB; -1 on failure.
int telemetry_system_info_get_mem_info(int kind);
// CPU usage in percent over 3 seconds, -1 on failure.
int telemetry_system_info_get_cpu_info();
// Copies one satellite's answer into the record of `records` (one a mesh node) whose mac matches.
void parseSystemInfoMsg(const cJSON *result, SystemInfoRecord *records, int count);
// Reply of the synchronisation service with the satellites' figures; `user` is the SystemInfoList they go to.
void handle_ubus_call_from_re_system_info(blob_attr *message, void *user);
