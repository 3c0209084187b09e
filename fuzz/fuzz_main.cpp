// The entry of all targets, and the platform below them: no waiting, no bus, no driver, no command, no lines
// of the log, and random numbers that are the same each time.
#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>

#include <linux/wireless.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/fuzz_target.h"
#include "telemetry_bus_call.h"
#include "telemetry_command.h"
#include "telemetry_blob.h"
#include "telemetry_guarded.h"
#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_platform_mtk.h"
#include "telemetry_utils.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

static uint32_t random_number;
static long clock_ms;

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
    // Lines of the log are made, and go nowhere.
    stdout = fopencookie(nullptr, "w", {});
    telemetry_memory_watch();
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
    FuzzMemory &memory = fuzz_memory = {};
    if (size >= 3 && data[size - 3] == kMemoryMark) {
        memory.all = data[size - 2] >> 7 != 0;
        memory.first = static_cast<uint32_t>((data[size - 2] & 0x7f) << 8 | data[size - 1]);
        size -= 3;
    }
    try {
        memory.counts = true;
        fuzz_target->run(data, size);
    } catch (const std::bad_alloc &) {
        require(memory.refused);
    }
    memory.counts = false;
    if (fuzz_target->end != nullptr)
        fuzz_target->end();
    return 0;
}

// An allocation of a run like the last one.
static uint32_t any_allocation(unsigned seed) {
    const uint32_t bits = static_cast<uint32_t>(std::bit_width(fuzz_memory.seen));
    return (seed >> 4) % (1u << std::min(1 + seed % 15, std::min(bits, 15u)));
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
    uint8_t end[3] = {};
    if (size > 3 && data[size - 3] == kMemoryMark)
        memcpy(end, data + (size -= 3), sizeof(end));
    if (fuzz_target->mutate == nullptr || seed % 4 == 0)
        size = LLVMFuzzerMutate(data, size, max_size);
    else
        size = fuzz_target->mutate(data, size, max_size, seed);
    if (seed / 4 % 4 == 0) {
        const uint32_t which = any_allocation(seed) | seed / 16 % 4 / 3 << 15;
        end[0] = which == 0 ? 0 : kMemoryMark, end[1] = static_cast<uint8_t>(which >> 8);
        end[2] = static_cast<uint8_t>(which);
    }
    if (end[0] == 0 || size + 3 > max_size)
        return size;
    memcpy(data + size, end, sizeof(end));
    return size + 3;
}

// --- The platform ---

static std::optional<std::string> next_answer(const std::string &name) {
    const FuzzPlenty plenty;
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
    std::optional<FuzzPlenty> plenty(std::in_place);
    const std::optional<std::string> answer = next_answer(std::string(object) + "." + method);
    if (!answer)
        return TELEMETRY_BUS_NO_OBJECT;
    if (answer->starts_with('!'))
        return *answer == "!!" ? TELEMETRY_BUS_NO_CONNECTION : TELEMETRY_BUS_CALL_FAILED;
    if (answer->empty())
        return TELEMETRY_BUS_OK;
    BlobBuffer message;
    if (!blobmsg_add_json_from_string(message.get(), answer->c_str())) {
        blob_buf_init(message.get(), 0);
        blob_put_raw(message.get(), answer->data(), static_cast<unsigned>(answer->size()));
    }
    plenty.reset();
    return telemetry_guarded("answer", [&] { reply(message.head(), user); }) ? TELEMETRY_BUS_OK
                                                                             : TELEMETRY_BUS_CALL_FAILED;
}

int telemetry_command_run(const char *const argv[], int, const TelemetryCommandOutput *output, int *) {
    const FuzzPlenty plenty;
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

// Every look at the clock finds it later.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    clock_ms += 300;
    *now = {clock_ms / 1000, clock_ms % 1000 * 1000000};
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
