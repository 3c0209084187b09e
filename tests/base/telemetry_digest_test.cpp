#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "telemetry_utils.h"

// Without a libcrypto header: the names alone are the interface.
extern "C" {
int MD5_Init(void *context);
int MD5_Update(void *context, const void *data, size_t length);
int MD5_Final(unsigned char *digest, void *context);
}

static const uint8_t *bytes(const std::string &text) {
    return reinterpret_cast<const uint8_t *>(text.data());
}

static int32_t size_of(const std::string &text) {
    return static_cast<int32_t>(text.size());
}

TEST(TelemetryDigest, Base64) {
    const std::pair<std::string, const char *> cases[] = {
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foobar", "Zm9vYmFy"},
        {"\xff\xfe\xfb\xfb\xef\xbe", "//77++++"},
    };
    for (const auto &[input, expected] : cases) {
        std::string output((input.size() + 2) / 3 * 4 + 1, '#');
        EXPECT_EQ(base64_encode(bytes(input), size_of(input), output.data()), 0);
        EXPECT_STREQ(output.c_str(), expected);
    }
}

TEST(TelemetryDigest, Md5AtOnceAndInSteps) {
    const std::string input = "message digest";
    alignas(16) unsigned char context[512];
    unsigned char digest[16];
    MD5_Init(context);
    MD5_Update(context, "mess", 4);
    MD5_Update(context, "age digest", 10);
    MD5_Final(digest, context);
    char text[33], stepped[33];
    mac_uint8_to_char(stepped, sizeof(stepped), digest, sizeof(digest));
    EXPECT_EQ(md5_encode_str(bytes(input), size_of(input), text), 0);
    EXPECT_STREQ(text, "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_STREQ(stepped, text);
}

TEST(TelemetryDigest, HmacSha1) {
    const std::string jefe = "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79";
    const struct {
        std::string key;
        std::string message;
        int n;
        std::string digest;
    } cases[] = {
        {"Jefe", "what do ya want for nothing?", 20, jefe},
        {"Jefe", "what do ya want for nothing?", 1, "ef"},
        {"Jefe", "what do ya want for nothing?", 21, jefe},
        {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First", 20,
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {"key", "", 20, "f42bb0eeb018ebbd4597ae7213711ec60760843f"},
    };
    for (const auto &c : cases) {
        char output[41];
        EXPECT_EQ(hmac_sha1_encode(c.message.c_str(), c.n, output, c.key.c_str()), 0);
        EXPECT_EQ(output, c.digest);
    }
}

TEST(TelemetryDigest, BadArgumentsFail) {
    const uint8_t input[1] = {'x'};
    char output[41];
    uint8_t digest[16];
    for (const auto &[bad, length] :
         {std::pair<const uint8_t *, int32_t>{input, 0}, {input, -1}, {nullptr, 1}}) {
        EXPECT_EQ(base64_encode(bad, length, output), -1);
        EXPECT_EQ(md5_encode(bad, length, digest), -1);
        EXPECT_EQ(md5_encode_str(bad, length, output), -1);
    }
    EXPECT_EQ(hmac_sha1_encode("m", 0, output, "k"), -1);
    EXPECT_EQ(hmac_sha1_encode("m", 20, output, ""), -1);
    EXPECT_EQ(hmac_sha1_encode("m", 20, output, nullptr), -1);
}
