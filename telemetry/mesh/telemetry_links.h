// This node's own links: wired ports, wireless backhaul, parent.
#pragma once

#include "telemetry_snapshot.h"

// Wired ports of the board profile into ports[capacity]; *used is the number in use. With count_wan the WAN
// port counts as used, and its speed is not read.
int telemetry_collect_wired_port_num(int32_t *used, WiredPortInfo *ports, int capacity, int count_wan);
int get_wan_port();
// 0 with link, -1 without.
int telemetry_get_port_link_status(int port);
// Speed, and *counter + 1 when it is above 0.
int telemetry_get_port_speed(int port, int32_t *counter);
// Fills slots 0 and 1 of an array of kBackhaulSlots; every slot has its statistics block.
int telemetry_collect_backhaul_info(BackhaulInfo *slots);
// Parent's MAC on a satellite; `buffer` holds at least 18 characters and is untouched on the main node.
int telemetry_collect_device_parent_mac(char *buffer);
