// Every absolute path of the platform, and the one place where a different root is put in front of it.
//
// Constants are router paths. Whoever opens, creates or runs one passes it through telemetry_path();
// functions that take a path (telemetry_parse_file and the like) take the router path and do that themselves.
#pragma once

#include <string>
#include <string_view>

inline constexpr char kConsolePath[] = "/dev/console";
inline constexpr char kHeartbeatTimeoutPath[] = "/tmp/cloud_heartbeat_timeout_count";
inline constexpr char kBackupConfigDir[] = "/tmp/telemetry";
inline constexpr char kBackupConfigFile[] = "/tmp/telemetry/telemetry";
inline constexpr char kPostDonePath[] = "/tmp/telemetry/post_done";
inline constexpr char kRestartPath[] = "/tmp/telemetry/restart";
inline constexpr char kSystemConfigDir[] = "/etc/config";
inline constexpr char kSystemConfigSaveDir[] = "/tmp/.uci";
inline constexpr char kProfileConfigDir[] = "/etc/profile.d";
inline constexpr char kNtpSyncedPath[] = "/tmp/run/ntpd.uptime";
inline constexpr char kWorkModePath[] = "/tmp/work_mode";
inline constexpr char kCaCertificatePath[] = "/etc/certificate/2048_newroot.cer";
// The system's bundle of certificates, as package ca-bundle installs it.
inline constexpr char kCaBundlePath[] = "/etc/ssl/certs/ca-certificates.crt";
inline constexpr char kBusSocketPath[] = "/var/run/ubus.sock";
inline constexpr char kMeshDeviceListPath[] = "/tmp/sync-server/mesh_dev_list";
inline constexpr char kReClientListPath[] = "/tmp/client_mgmt/re_client_list";
inline constexpr char kWirePortScript[] = "/lib/telemetry/wire_port_info.sh";
inline constexpr char kProcStatPath[] = "/proc/stat";
inline constexpr char kProcMeminfoPath[] = "/proc/meminfo";
inline constexpr char kProcUptimePath[] = "/proc/uptime";
inline constexpr char kConntrackCountPath[] = "/proc/sys/net/netfilter/nf_conntrack_count";
inline constexpr char kCpuinfoFreqPath[] = "/sys/devices/system/cpu/cpufreq/policy0/cpuinfo_cur_freq";
inline constexpr char kScalingFreqPath[] = "/sys/devices/system/cpu/cpufreq/policy0/scaling_cur_freq";
inline constexpr char kThermalZonePath[] = "/sys/class/thermal/thermal_zone0/temp";
inline constexpr char kNetDeviceDir[] = "/sys/class/net";
inline constexpr char kUsbDeviceDir[] = "/sys/bus/usb/devices";
inline constexpr char kAfcStatusPath[] = "/tmp/afc/status";
inline constexpr char kHavenguardStatsPath[] = "/tmp/havenguard/stats";

// The root in front of every path: $TELEMETRY_SYSROOT, read once; empty on a router. A root that holds a
// character outside [A-Za-z0-9/._-] ends the process with one line on standard error, since the root becomes
// part of commands.
const std::string &telemetry_sysroot();

// `path` below the root: the path itself on a router.
std::string telemetry_path(std::string_view path);

// Bus socket for "the default socket": null (the library's default) on a router, the root's own socket
// otherwise.
const char *telemetry_bus_default_socket();

// Bus socket for callers that name kBusSocketPath: that path where it exists (or a root is set), else the
// default.
const char *telemetry_bus_named_socket();
