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
    const struct {
        const char *input;
        const char *output;
    } cases[] = {
        {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},          {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"\xff\xfe\xfb", "//77"}, {"\xfb\xef\xbe", "++++"},
    };
    for (const auto &c : cases) {
        const std::string input = c.input;
        std::string output((input.size() + 2) / 3 * 4 + 1, '#');
        EXPECT_EQ(base64_encode(bytes(input), size_of(input), output.data()), 0);
        EXPECT_STREQ(output.c_str(), c.output);
    }
}

TEST(TelemetryDigest, Md5) {
    const struct {
        std::string input;
        const char *digest;
    } cases[] = {
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto &c : cases) {
        char text[33];
        EXPECT_EQ(md5_encode_str(bytes(c.input), size_of(c.input), text), 0);
        EXPECT_STREQ(text, c.digest);

        uint8_t raw[16];
        uint8_t one_shot[16];
        EXPECT_EQ(md5_encode(bytes(c.input), size_of(c.input), raw), 0);
        md5_calc(one_shot, c.input.data(), c.input.size());
        EXPECT_EQ(memcmp(raw, one_shot, sizeof(raw)), 0);
        EXPECT_EQ(mac_uint8_to_char(text, sizeof(text), raw, sizeof(raw)), 0);
        EXPECT_STREQ(text, c.digest);
    }
}

TEST(TelemetryDigest, Md5IsAvailableInSteps) {
    alignas(16) unsigned char context[512];
    unsigned char digest[16];
    MD5_Init(context);
    MD5_Update(context, "mess", 4);
    MD5_Update(context, "age digest", 10);
    MD5_Final(digest, context);
    char text[33];
    mac_uint8_to_char(text, sizeof(text), digest, sizeof(digest));
    EXPECT_STREQ(text, "f96b697d7cb7938d525a2f31aaf161d0");
}

TEST(TelemetryDigest, TheBodyOfAnEmptyObject) {
    uint8_t digest[16];
    char text[25];
    ASSERT_EQ(md5_encode(bytes("{}"), 2, digest), 0);
    ASSERT_EQ(base64_encode(digest, sizeof(digest), text), 0);
    EXPECT_STREQ(text, "mZFLkyvTelC5g8XnyQrpOw==");
}

TEST(TelemetryDigest, HmacSha1) {
    const struct {
        std::string key;
        std::string message;
        int n;
        std::string digest;
    } cases[] = {
        {std::string(20, '\x0b'), "Hi There", 20, "b617318655057264e28bc0b6fb378c8ef146be00"},
        {"Jefe", "what do ya want for nothing?", 20, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {std::string(20, '\xaa'), std::string(50, '\xdd'), 20, "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {std::string(20, '\x0c'), "Test With Truncation", 12, "4c1a03424b55e07fe7f27be1"},
        {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First", 20,
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {"Jefe", "what do ya want for nothing?", 1, "ef"},
        {"Jefe", "what do ya want for nothing?", 1000, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {"Jefe", "what do ya want for nothing?", 21, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
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
    for (const int32_t length : {0, -1}) {
        EXPECT_EQ(base64_encode(input, length, output), -1);
        EXPECT_EQ(md5_encode(input, length, digest), -1);
        EXPECT_EQ(md5_encode_str(input, length, output), -1);
    }
    EXPECT_EQ(base64_encode(nullptr, 1, output), -1);
    EXPECT_EQ(base64_encode(input, 1, nullptr), -1);
    EXPECT_EQ(md5_encode(nullptr, 1, digest), -1);
    EXPECT_EQ(md5_encode_str(input, 1, nullptr), -1);
    EXPECT_EQ(hmac_sha1_encode(nullptr, 20, output, "k"), -1);
    EXPECT_EQ(hmac_sha1_encode("m", 20, nullptr, "k"), -1);
    EXPECT_EQ(hmac_sha1_encode("m", 0, output, "k"), -1);
    EXPECT_EQ(hmac_sha1_encode("m", 20, output, ""), -1);
    EXPECT_EQ(hmac_sha1_encode("m", 20, output, nullptr), -1);
}
