// OpenSSL marks the plain digest entry points as deprecated; they are part of this daemon's interface, and
// they are what every libcrypto since 1.1 has.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "telemetry_utils.h"

#include <cstring>
#include <memory>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/md5.h>
#include <span>
#if defined(OPENSSL_VERSION_MAJOR) && OPENSSL_VERSION_MAJOR >= 3
#include <openssl/decoder.h>
#include <openssl/kdf.h>
#endif

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"

using HmacPtr = std::unique_ptr<HMAC_CTX, HandleRelease<HMAC_CTX_free>>;

static constexpr int kSha1Length = 20;

static bool is_valid_input(const void *input, int32_t length, const void *output) {
    return input != nullptr && output != nullptr && length > 0;
}

// Two lower case digits a byte and a terminator.
static void write_hex(char *output, const uint8_t *bytes, size_t n) {
    constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < n; i++) {
        *output++ = kHex[bytes[i] >> 4];
        *output++ = kHex[bytes[i] & 0xf];
    }
    *output = '\0';
}

int base64_encode(const uint8_t *input, int32_t length, char *output) {
    if (!is_valid_input(input, length, output)) {
        LOG_ERROR("param error");
        return -1;
    }
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t size = static_cast<size_t>(length);
    for (size_t at = 0; at < size; at += 3) {
        const size_t left = size - at;
        const uint32_t group = static_cast<uint32_t>(input[at]) << 16 |
                               (left > 1 ? static_cast<uint32_t>(input[at + 1]) << 8 : 0u) |
                               (left > 2 ? static_cast<uint32_t>(input[at + 2]) : 0u);
        *output++ = kAlphabet[group >> 18];
        *output++ = kAlphabet[(group >> 12) & 0x3f];
        *output++ = left > 1 ? kAlphabet[(group >> 6) & 0x3f] : '=';
        *output++ = left > 2 ? kAlphabet[group & 0x3f] : '=';
    }
    *output = '\0';
    return 0;
}

void md5_calc(uint8_t *digest, const void *data, size_t length) {
    MD5_CTX md5;
    MD5_Init(&md5);
    MD5_Update(&md5, data, length);
    MD5_Final(digest, &md5);
}

int md5_encode(const uint8_t *input, int32_t length, uint8_t *output) {
    if (!is_valid_input(input, length, output)) {
        LOG_ERROR("param error");
        return -1;
    }
    md5_calc(output, input, static_cast<size_t>(length));
    return 0;
}

int md5_encode_str(const uint8_t *input, int32_t length, char *output) {
    if (!is_valid_input(input, length, output)) {
        LOG_ERROR("param error");
        return -1;
    }
    uint8_t digest[MD5_DIGEST_LENGTH];
    md5_calc(digest, input, static_cast<size_t>(length));
    write_hex(output, digest, sizeof(digest));
    return 0;
}

int hmac_sha1_encode(const char *message, int n, char *output, const char *key) {
    if (message == nullptr || output == nullptr || n < 1 || key == nullptr || *key == '\0') {
        LOG_ERROR("param error");
        return -1;
    }
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const HmacPtr hmac(HMAC_CTX_new());
    if (hmac == nullptr || HMAC_CTX_reset(hmac.get()) != 1 ||
        HMAC_Init_ex(hmac.get(), key, static_cast<int>(strlen(key)), EVP_sha1(), nullptr) != 1 ||
        HMAC_Update(hmac.get(), reinterpret_cast<const uint8_t *>(message), strlen(message)) != 1 ||
        HMAC_Final(hmac.get(), digest, &length) != 1) {
        LOG_ERROR("param error");
        return -1;
    }
    write_hex(output, digest, static_cast<size_t>(n < kSha1Length ? n : kSha1Length));
    return 0;
}

#if defined(OPENSSL_VERSION_MAJOR) && OPENSSL_VERSION_MAJOR >= 3
// The first fetch of a kind makes all methods of that kind.
template <auto fetch, auto release> static void make_methods(const char *one) {
    release(fetch(nullptr, one, nullptr));
}

struct MethodKind {
    void (*make)(const char *one);
    const char *one;
};
static constexpr MethodKind kMethodKinds[] = {
    {make_methods<EVP_MD_fetch, EVP_MD_free>, "SHA1"}, // signatures need no other
    {make_methods<EVP_CIPHER_fetch, EVP_CIPHER_free>, "AES-128-GCM"},
    {make_methods<EVP_MAC_fetch, EVP_MAC_free>, "HMAC"},
    {make_methods<EVP_KDF_fetch, EVP_KDF_free>, "HKDF"},
    {make_methods<EVP_RAND_fetch, EVP_RAND_free>, "CTR-DRBG"},
    {make_methods<EVP_KEYMGMT_fetch, EVP_KEYMGMT_free>, "RSA"},
    {make_methods<EVP_KEYEXCH_fetch, EVP_KEYEXCH_free>, "ECDH"},
    {make_methods<EVP_SIGNATURE_fetch, EVP_SIGNATURE_free>, "RSA"},
    {make_methods<EVP_ASYM_CIPHER_fetch, EVP_ASYM_CIPHER_free>, "RSA"},
    {make_methods<OSSL_DECODER_fetch, OSSL_DECODER_free>, "RSA"},
};

void telemetry_crypto_prepare(bool connections) {
    if (OSSL_LIB_CTX_get0_global_default() == nullptr) { // a fetch would fall over it
        telemetry_memory_refused();
        return;
    }
    for (const MethodKind &kind : std::span(kMethodKinds).first(connections ? std::size(kMethodKinds) : 1))
        kind.make(kind.one);
    ERR_clear_error(); // a library may have been built without one
}
#else
void telemetry_crypto_prepare(bool) {}
#endif
