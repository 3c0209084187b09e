#include "telemetry_utils.h"

#include <string>

#include <gtest/gtest.h>

TEST(TelemetryDigest, Base64AndMd5) {
    const std::tuple<int (*)(const uint8_t *, int32_t, char *), std::string, std::string> cases[] = {
        {base64_encode, "f", "Zg=="},
        {base64_encode, "foobar", "Zm9vYmFy"},
        {base64_encode, "\xff\xfe\xfb\xfb\xef\xbe", "//77++++"},
        {md5_encode_str, "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    };
    for (const auto &[encode, text, expected] : cases) {
        const auto *input = reinterpret_cast<const uint8_t *>(text.data());
        char output[41];
        EXPECT_EQ(encode(input, static_cast<int32_t>(text.size()), output), 0);
        EXPECT_EQ(output, expected);
        EXPECT_EQ(encode(input, 0, output), -1);
        EXPECT_EQ(encode(nullptr, 1, output), -1);
    }
}

TEST(TelemetryDigest, HmacSha1) {
    const std::string question = "what do ya want for nothing?";
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {"Jefe", question, 20, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {"Jefe", question, 21, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First", 20,
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {"key", "m", 0, ""}, // refused
        {"", "m", 20, ""},
    };
    for (const auto &[key, message, n, digest] : cases) {
        char output[41] = "";
        EXPECT_EQ(hmac_sha1_encode(message.c_str(), n, output, key.c_str()), digest.empty() ? -1 : 0);
        EXPECT_EQ(output, digest);
    }
    char output[41];
    EXPECT_EQ(hmac_sha1_encode("m", 20, output, nullptr), -1);
}
