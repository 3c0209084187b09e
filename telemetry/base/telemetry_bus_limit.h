// A limit for what the platform's bus library waits for without one: a bus that takes nobody, is stopped, or
// loses an answer would hold the loop for as long as it stays so.
#pragma once

// Lives around connecting and what follows with the connection; one at a time, and not longer than what it
// watches. After `wait_ms` a signal ends the wait to connect; a wait with a connection ends because that is
// shut down.
class TelemetryBusLimit {
  public:
    TelemetryBusLimit();
    ~TelemetryBusLimit();
    TelemetryBusLimit(const TelemetryBusLimit &) = delete;
    TelemetryBusLimit &operator=(const TelemetryBusLimit &) = delete;
    // Where the library keeps the connection's socket; below 0 while there is none.
    static void watch(const int &socket);
    inline static int wait_ms = 10000; // tests have less patience
};
