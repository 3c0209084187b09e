// Printing and measuring a collected-data list of 64 KiB, beside cJSON's own compact printer.
#include <benchmark/benchmark.h>

#include "telemetry_json.h"

// Records as the daemon collects them: short keys, digests, small numbers, byte counters, some fractions.
static JsonPtr make_list(size_t length) {
    JsonPtr list(cJSON_CreateArray());
    for (int n = 0; telemetry_json_length(list.get()) < static_cast<long>(length); n++) {
        cJSON *record = cJSON_CreateObject();
        cJSON_AddItemToArray(list.get(), record);
        cJSON_AddStringToObject(record, "eid", "client_info");
        cJSON_AddNumberToObject(record, "ct", 1700000000 + n);
        cJSON *payload = cJSON_AddObjectToObject(record, "ep");
        cJSON_AddNumberToObject(payload, "cn", 12);
        cJSON *clients = cJSON_AddArrayToObject(payload, "cl");
        for (int i = 0; i < 12; i++) {
            cJSON *client = cJSON_CreateObject();
            cJSON_AddItemToArray(clients, client);
            cJSON_AddStringToObject(client, "mk", "7e62959227ac52e4c1c554c9cf6e6e36");
            cJSON_AddStringToObject(client, "am", "d174ab98d277d9f5a5611c2c9f419d9f");
            cJSON_AddStringToObject(client, "hn", "Living room \"TV\"");
            cJSON_AddStringToObject(client, "wt", "wireless");
            cJSON_AddNumberToObject(client, "sl", 60 + i);
            cJSON_AddNumberToObject(client, "pm", 9);
            cJSON_AddNumberToObject(client, "tx", 1201 * i);
            cJSON_AddNumberToObject(client, "rx", 866);
            cJSON_AddNumberToObject(client, "rb", 81604378624.0 + i);
            cJSON_AddNumberToObject(client, "cu", 12.25 + i);
            cJSON_AddBoolToObject(client, "gu", i % 2);
        }
        cJSON_AddNumberToObject(record, "cnt", 13);
    }
    return list;
}

static const cJSON *list_of_64k() {
    static const JsonPtr list = make_list(65536);
    return list.get();
}

static void finish(benchmark::State &state) {
    state.SetBytesProcessed(state.iterations() * telemetry_json_length(list_of_64k()));
}

static void print_with_cjson(benchmark::State &state) {
    const cJSON *list = list_of_64k();
    for (auto _ : state)
        benchmark::DoNotOptimize(TextPtr(cJSON_PrintUnformatted(list)));
    finish(state);
}

static void print_with_telemetry_json(benchmark::State &state) {
    const cJSON *list = list_of_64k();
    for (auto _ : state)
        benchmark::DoNotOptimize(telemetry_json_print(list));
    finish(state);
}

static void measure_with_telemetry_json(benchmark::State &state) {
    const cJSON *list = list_of_64k();
    for (auto _ : state)
        benchmark::DoNotOptimize(telemetry_json_length(list));
    finish(state);
}

BENCHMARK(print_with_cjson);
BENCHMARK(print_with_telemetry_json);
BENCHMARK(measure_with_telemetry_json);
