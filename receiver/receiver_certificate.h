// Certificates: those of the owner, from files, or an authority of the receiver's own and what it signs.
#pragma once

#include <memory>
#include <string>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

struct X509Delete {
    void operator()(X509 *certificate) const {
        X509_free(certificate);
    }
    void operator()(EVP_PKEY *key) const {
        EVP_PKEY_free(key);
    }
};

struct Credentials {
    std::unique_ptr<X509, X509Delete> certificate;
    std::unique_ptr<EVP_PKEY, X509Delete> key;
};

struct Certificates {
    Credentials authority;
    Credentials good;       // for 127.0.0.1 and localhost, signed by the authority
    Credentials unknown_ca; // the same, signed by an authority that nobody knows
    Credentials wrong_host; // signed by the authority for another host
    Credentials expired;    // signed by the authority, over since yesterday
};

// Makes them all anew; throws std::runtime_error when libcrypto fails.
Certificates make_certificates();

// PEM text of a certificate.
std::string certificate_text(const X509 *certificate);

struct SslContextDelete {
    void operator()(SSL_CTX *context) const {
        SSL_CTX_free(context);
    }
};
using SslContext = std::unique_ptr<SSL_CTX, SslContextDelete>;

// A server's context that shows the certificate (with its chain) and key of two PEM files, or of
// `credentials`. Throws std::runtime_error.
SslContext tls_context(const std::string &certificate_file, const std::string &key_file);
SslContext tls_context(const Credentials &credentials);
