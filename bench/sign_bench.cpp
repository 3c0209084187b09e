// Signing a body of 64 KiB, beside the bare MD5 and HMAC of the same input.
#include <benchmark/benchmark.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "telemetry_post.h"

static constexpr char kSecret[] = "0123456789abcdef0123456789abcdef";
static constexpr char kSignedPath[] = "/api/data/device/uploadBasicData";

static const std::string &body_of_64k() {
    static const std::string body(65536, 'x');
    return body;
}

static void finish(benchmark::State &state) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(body_of_64k().size()));
}

static void bare_md5_and_hmac(benchmark::State &state) {
    const std::string &body = body_of_64k();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned char mac[EVP_MAX_MD_SIZE];
    // A string to sign has this length: base64 digest, seconds, path.
    const std::string text(24 + 1 + 10 + 1 + sizeof(kSignedPath) - 1, 'x');
    for (auto _ : state) {
        EVP_Digest(body.data(), body.size(), digest, nullptr, EVP_md5(), nullptr);
        HMAC(EVP_sha1(), kSecret, sizeof(kSecret) - 1, reinterpret_cast<const unsigned char *>(text.data()),
             text.size(), mac, nullptr);
        benchmark::DoNotOptimize(digest);
        benchmark::DoNotOptimize(mac);
    }
    finish(state);
}

static void request_signature(benchmark::State &state) {
    const std::string &body = body_of_64k();
    static TelemetryCtx ctx;
    static PostRequest request;
    request.owner = &ctx;
    for (auto _ : state) {
        request.header_count = 0;
        if (add_curl_request_signature(&request, body.c_str(), kSecret, kSignedPath) != 0)
            state.SkipWithError("no signature");
        benchmark::DoNotOptimize(request.headers[0]);
    }
    finish(state);
}

BENCHMARK(bare_md5_and_hmac);
BENCHMARK(request_signature);
