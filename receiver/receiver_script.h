// Misbehaviour on request: for each call a queue of steps, each used for one or more requests; an empty queue
// means that the cloud behaves.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include <cjson/cJSON.h>

struct ScriptStep {
    std::string kind = "ok"; // see kStepKinds
    int code = 0;            // error_code
    std::string text;        // raw
    size_t bytes = 0;        // huge
    int delay_ms = 0;        // before the answer, with any kind
    int status = 200;        // HTTP status, with any kind that answers
    long times = 1;          // how many requests it serves; negative: all from now on
    // The answer is the regular one, and what it says is true.
    bool is_regular() const {
        return kind == "ok" || kind == "drip";
    }
};

// Kinds for the calls "key", "strategy" and "upload".
//   ok             the regular answer (with a delay: a slow one)
//   drip           the regular answer, a byte a second
//   error_code     {"error_code":CODE}
//   empty          no body
//   garbage        text that is not JSON
//   huge           BYTES bytes of JSON (10 MiB without "bytes")
//   no_members     {}
//   wrong_type     the expected members with other types
//   raw            TEXT as it is
//   cut            the connection ends without an answer
//   cut_body       the connection ends in the middle of the answer
// Kinds for the call "connect", decided in the TLS handshake:
//   ok, unknown_ca, wrong_host, expired, cut
bool script_kind_is_known(const std::string &call, const std::string &kind);

class Script {
  public:
    // Appends the steps of {"call": "...", "steps": [{...}]}; an empty text, or what is wrong with it.
    std::string append(const cJSON *order);
    // The step for the next request of `call`.
    ScriptStep take(const std::string &call);
    void reset();
    size_t pending();
    // Sleeps, but no longer than until interrupt().
    void sleep(int ms);
    void interrupt();

  private:
    std::mutex mutex_;
    std::condition_variable wake_;
    unsigned interrupts_ = 0;
    std::map<std::string, std::deque<ScriptStep>> steps_;
};
