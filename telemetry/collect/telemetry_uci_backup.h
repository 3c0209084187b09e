// The backup configuration: what was last reported, so that only changes are collected.
#pragma once

#include <cstdint>

#include <cjson/cJSON.h>

#include "telemetry_uci.h"

// One watched option of a collector.
struct TelemetryIndexEntry {
    int index;                 // row number in its table
    const char *key;           // key of the record member
    uint32_t kind;             // 3 everywhere
    uint32_t source;           // TelemetryUciSource of the live option
    uint32_t clear_after_read; // 1: a one-shot value, emptied once it has been read
    const char *package;
    const char *section;
    const char *option;
    int value_type; // TelemetryValueType
};

int _telemetry_get_value_in_tmp_backup_config(uci_context *uci, const char *package, const char *section,
                                              const char *option, char *buffer, int size);
int _telemetry_set_value_in_tmp_backup_config_with_create(uci_context *uci, const char *package,
                                                          const char *section, const char *option,
                                                          const char *value);
// Option of the backup section "<package>_<section>".
int telemetry_get_uci_value_in_tmp_backup_config(const char *package, const char *section, const char *option,
                                                 char *buffer, int size);
int telemetry_set_uci_value_in_tmp_backup_config(const char *package, const char *section, const char *option,
                                                 const char *value);
// 1 when a watched option differs from the recorded value; all differing values are then recorded. One that
// could not be recorded does not count: the next call finds it again.
int telemetry_update_tmp_backup_config_by_telemetry_index(const TelemetryIndexEntry *table, int rows);
// Adds every recorded value of the table; `count` grows by 1 a member.
int telemetry_get_tmp_backup_config_cJSON_object_by_telemetry_index(const TelemetryIndexEntry *table,
                                                                    int rows, uint32_t *count,
                                                                    cJSON *payload);
// Adds every live value of the table and empties the option: one-shot values that other programs leave. Like
// what is recorded here, it is stored when the outermost TelemetryUciScope ends: with a record that memory
// was short for it stays as it was, and a value that is written before that end is emptied with the one told.
int telemetry_get_duration_config_cJSON_object_by_telemetry_index(const TelemetryIndexEntry *table, int rows,
                                                                  uint32_t *count, cJSON *payload);
// 1 when the digest of the object's compact text differs from the recorded one; the new one is then recorded.
int telemetry_update_tmp_backup_config_md5(const char *package, const char *name, const cJSON *object);
// Live value of a row, emptied afterwards when the row says so.
int telemetry_get_uci_value_by_telemetry_index(const TelemetryIndexEntry *row, char *buffer, int size);
