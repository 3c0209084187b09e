// The USB port of a node: measured here for this node, gathered from the satellites.
#pragma once

#include <cstdint>

enum TelemetryUsbType : int32_t {
    TELEMETRY_USB_NONE = 0,
    TELEMETRY_USB_STORAGE = 1,
    TELEMETRY_USB_MODEM = 2,
    TELEMETRY_USB_PRINTER = 3,
    TELEMETRY_USB_OTHER = 4,
};

struct UsbInfoRecord {
    char mac[18];             // filled by whoever knows the node
    int32_t usb_enable;       // option `usb`.`settings`.`usb_enable`; -1 unknown
    int32_t config_is_change; // 1: that option changed since this node's last report
    int32_t usb_type;         // TelemetryUsbType of the first device that is not a hub
    char vendor_id[8];        // four hexadecimal digits, empty without a device
    char product_id[8];
};

// This node's figures from the configuration and /sys/bus/usb/devices, without the mac. The change counts as
// reported. 0, or -1 for a null record.
int collect_myself_usb_info(UsbInfoRecord *record);
