#include "telemetry_repeat.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string_view>

// Messages that are remembered; a router without any package says about fifty.
static constexpr int kMaxMessages = 256;
// Modules, snapshot and queries are about twenty-five.
static constexpr int kMaxTopics = 40;
// A longer message is known by its beginning.
static constexpr size_t kMessageSize = 256;
// Of names and messages that found no place.
static constexpr int kNoTopic = -1;

namespace {
struct Topic {
    uint32_t name; // its hash
    uint32_t run;  // 1 is the first
};

struct Message {
    uint32_t text; // its hash
    int topic;
    uint32_t run;    // of the topic, that said it last; 0: the place is free
    uint32_t before; // the run that said it before that, 0: none
};

struct Memory {
    Topic topics[kMaxTopics];
    int topic_count;
    Message messages[kMaxMessages];
    int current; // topic of the next message
    bool waits;  // its run has not begun
};
} // namespace

static Memory memory;

static uint32_t hash_of(const char *text) {
    return static_cast<uint32_t>(std::hash<std::string_view>()(text));
}

static int topic_of(const char *name) {
    const uint32_t hash = hash_of(name);
    for (int i = 0; i < memory.topic_count; ++i) {
        if (memory.topics[i].name == hash)
            return i;
    }
    if (memory.topic_count == kMaxTopics)
        return kNoTopic;
    memory.topics[memory.topic_count] = {hash, 1};
    return memory.topic_count++;
}

static void begin_run() {
    if (memory.waits && memory.current != kNoTopic)
        memory.topics[memory.current].run++;
    memory.waits = false;
}

// Free, or of a run that nothing is compared with any more.
static bool is_free(const Message &message) {
    return message.run == 0 || message.run + 1 < memory.topics[message.topic].run;
}

// The current topic's place of the message, or one for it; null without room.
static Message *place_of(uint32_t text) {
    Message *place = nullptr;
    for (Message &message : memory.messages) {
        if (message.run != 0 && message.text == text && message.topic == memory.current)
            return &message;
        if (place == nullptr && is_free(message))
            place = &message;
    }
    if (place != nullptr)
        *place = {text, memory.current, 0, 0};
    return place;
}

uint32_t telemetry_repeat_check(const char *format, ...) {
    char text[kMessageSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (memory.topic_count == 0)
        memory.current = topic_of(""); // what is said outside of every topic
    begin_run();
    Message *message = memory.current == kNoTopic ? nullptr : place_of(hash_of(text));
    if (message == nullptr)
        return TELEMETRY_LOG_ERROR;
    const uint32_t run = memory.topics[memory.current].run;
    if (message->run != run) {
        message->before = message->run;
        message->run = run;
    }
    const bool repeated = message->before != 0 && message->before + 1 == run;
    return repeated ? TELEMETRY_LOG_DEBUG : TELEMETRY_LOG_ERROR;
}

void telemetry_repeat_forget() {
    memory = {};
}

TelemetryRepeatTopic::TelemetryRepeatTopic(const char *name)
    : outer_(memory.current), outer_waits_(memory.waits) {
    if (memory.topic_count == 0)
        topic_of(""); // the outermost one
    memory.current = topic_of(name);
    memory.waits = true;
}

TelemetryRepeatTopic::~TelemetryRepeatTopic() {
    memory.current = outer_;
    memory.waits = outer_waits_;
}

void TelemetryRepeatTopic::ran() const {
    begin_run();
}
