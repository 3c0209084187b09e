// The entry of all targets, and the platform below them: no waiting, no bus, no driver, no command, and
// random numbers that are the same each time.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>

#include <linux/wireless.h>
#include <unistd.h>

#include "support/fuzz_target.h"
#include "telemetry_bus_call.h"
#include "telemetry_command.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_platform_mtk.h"
#include "telemetry_utils.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

static uint32_t random_number;

extern "C" int LLVMFuzzerInitialize(int *, char ***argv) {
    const std::string name = std::filesystem::path((*argv)[0]).filename();
    for (const FuzzTarget &known : fuzz_targets) {
        if (known.name == name)
            fuzz_target = &known;
    }
    if (fuzz_target == nullptr) {
        for (const FuzzTarget &known : fuzz_targets)
            puts(known.name.c_str());
        exit(0);
    }
    fuzz_root();
    if (fuzz_target->start != nullptr)
        fuzz_target->start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_answers.clear();
    fuzz_driver_answer = nullptr;
    random_number = 1024;
    telemetry_debug_enable = 1;
    telemetry_debug_level = TELEMETRY_LOG_ERROR;
    fuzz_target->run(data, size);
    return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    if (fuzz_target->mutate == nullptr || seed % 4 == 0)
        return LLVMFuzzerMutate(data, size, max_size);
    return fuzz_target->mutate(data, size, max_size, seed);
}

// --- The platform ---

static std::optional<std::string> next_answer(const std::string &name) {
    const auto found = fuzz_answers.find(name);
    if (found == fuzz_answers.end())
        return std::nullopt;
    const std::string answer = found->second.front();
    if (found->second.size() > 1)
        found->second.pop_front();
    return answer;
}

TelemetryBusError telemetry_bus_call(const char *, const char *object, const char *method, blob_attr *, int,
                                     TelemetryBusReply reply, void *user) {
    const std::optional<std::string> answer = next_answer(std::string(object) + "." + method);
    if (!answer)
        return TELEMETRY_BUS_NO_OBJECT;
    if (answer->starts_with('!'))
        return TELEMETRY_BUS_CALL_FAILED;
    if (answer->empty())
        return TELEMETRY_BUS_OK;
    BlobBuffer message;
    if (!blobmsg_add_json_from_string(message.get(), answer->c_str())) {
        blob_buf_init(message.get(), 0);
        blob_put_raw(message.get(), answer->data(), static_cast<unsigned>(answer->size()));
    }
    reply(message.head(), user);
    return TELEMETRY_BUS_OK;
}

int telemetry_command_run(const char *const argv[], int, const TelemetryCommandOutput *output, int *) {
    memset(output->text, 0, output->size);
    // Nothing but a host is asked for echoes.
    require(strncmp(argv[0], "ping", 4) != 0 || telemetry_is_host(argv[3]) == 1);
    const std::optional<std::string> answer =
        next_answer("!" + std::filesystem::path(argv[0]).filename().string());
    if (!answer)
        return TELEMETRY_COMMAND_NOT_STARTED;
    memcpy(output->text, answer->data(), std::min(answer->size(), output->size - 1));
    return TELEMETRY_COMMAND_ENDED;
}

uint32_t telemetry_commands_killed() {
    return 0;
}

// A thread of libFuzzer waits, too.
extern "C" unsigned sleep(unsigned seconds) {
    if (gettid() != getpid())
        usleep(seconds * 1000000);
    return 0;
}

extern "C" int ioctl(int, unsigned long, ...) noexcept;
extern "C" int ioctl(int, unsigned long request, ...) noexcept {
    if (request != kMtkPrivateRequest || fuzz_driver_answer == nullptr)
        return -1;
    va_list arguments;
    va_start(arguments, request);
    iwreq *block = va_arg(arguments, iwreq *);
    va_end(arguments);
    std::copy_n(fuzz_driver_answer->data(),
                std::min<size_t>(fuzz_driver_answer->size(), block->u.data.length),
                static_cast<char *>(block->u.data.pointer));
    return 0;
}

extern "C" ssize_t getrandom(void *buffer, size_t length, unsigned) {
    random_number++;
    memcpy(buffer, &random_number, std::min(length, sizeof(random_number)));
    return static_cast<ssize_t>(length);
}
