// A call through the bus daemon and back: caller, ubusd and owner are processes (callers: threads) of their
// own.
#include <benchmark/benchmark.h>

#include <chrono>

#include "bus_daemon.h"

namespace {

int answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    ubus_send_reply(ctx, req, msg);
    return UBUS_STATUS_OK;
}

[[noreturn]] void serve(const std::string &socket) {
    static const ubus_method methods[] = {UBUS_METHOD_NOARG("echo", answer)};
    ubus_object_type type = UBUS_OBJECT_TYPE("bench", methods);
    ubus_object object = {};
    object.name = "bench";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    uloop_init();
    BusContextPtr bus(ubus_connect(socket.c_str()));
    if (!bus || ubus_add_object(bus.get(), &object) != 0)
        _exit(1);
    ubus_add_uloop(bus.get());
    uloop_run();
    _exit(0);
}

// The bus and an owner on it, from the first benchmark to the end of the process.
class BenchBus {
  public:
    BenchBus() : owner_(fork()) {
        if (owner_ == 0)
            serve(socket());
    }
    ~BenchBus() {
        kill(owner_, SIGKILL);
        waitpid(owner_, nullptr, 0);
        unlink(socket().c_str());
    }
    BenchBus(const BenchBus &) = delete;
    BenchBus &operator=(const BenchBus &) = delete;

    const std::string &socket() const {
        return daemon_.socket();
    }
    uint32_t object(ubus_context *bus) const {
        uint32_t id = 0;
        while (ubus_lookup_id(bus, "bench", &id) != UBUS_STATUS_OK)
            usleep(1000);
        return id;
    }

  private:
    BusDaemon daemon_{"/tmp/bus-bench-" + std::to_string(getpid()) + ".sock"};
    pid_t owner_;
};

const BenchBus &bench_bus() {
    static const BenchBus bus;
    return bus;
}

void bus_round_trip(benchmark::State &state) {
    const BenchBus &bus = bench_bus();
    BusContextPtr caller(ubus_connect(bus.socket().c_str()));
    const uint32_t object = bus.object(caller.get());
    BlobBuffer arguments;
    const std::string text(static_cast<size_t>(state.range(0)), 'x');
    blobmsg_add_string(arguments.get(), "text", text.c_str());

    const auto begin = std::chrono::steady_clock::now();
    for (auto _ : state) {
        if (ubus_invoke(caller.get(), object, "echo", arguments.head(), nullptr, nullptr, 10000) !=
            UBUS_STATUS_OK)
            state.SkipWithError("the call failed");
    }
    const std::chrono::duration<double, std::micro> us = std::chrono::steady_clock::now() - begin;
    const auto calls = static_cast<double>(state.iterations());
    state.counters["us_per_call"] = benchmark::Counter(us.count() / calls, benchmark::Counter::kAvgThreads);
    state.counters["calls_per_s"] = benchmark::Counter(calls, benchmark::Counter::kIsRate);
}

// Argument: bytes of text that go there and back.
BENCHMARK(bus_round_trip)->Arg(16)->Arg(16384)->Threads(1)->Threads(8)->UseRealTime();

} // namespace
