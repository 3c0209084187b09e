#include "receiver_certificate.h"

#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace {

constexpr long kDay = 86400;
// A daemon whose clock stands at a past time trusts the certificates too.
constexpr long kValidSince = -10 * 365 * kDay;

struct CertificateWish {
    const char *common_name;
    const char *alternative_names; // null for an authority
    long valid_until;              // seconds from now
};

void must(bool held, const char *what) {
    if (!held)
        throw std::runtime_error(std::string("certificate: ") + what);
}

void add_extension(X509 *certificate, X509 *issuer, int nid, const char *value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    must(extension != nullptr, value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

// A key and a certificate signed by `issuer`, or by itself when that is null.
Credentials make_credentials(const CertificateWish &wish, const Credentials *issuer) {
    Credentials made;
    made.key.reset(EVP_EC_gen("P-256"));
    made.certificate.reset(X509_new());
    must(made.key && made.certificate, "no key");
    X509 *certificate = made.certificate.get();
    X509 *signer = issuer ? issuer->certificate.get() : certificate;

    uint64_t serial = 0;
    must(RAND_bytes(reinterpret_cast<unsigned char *>(&serial), sizeof(serial)) == 1, "no random numbers");
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial >> 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), kValidSince);
    X509_gmtime_adj(X509_getm_notAfter(certificate), wish.valid_until);
    X509_set_pubkey(certificate, made.key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(wish.common_name), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(signer));
    if (wish.alternative_names) {
        add_extension(certificate, signer, NID_basic_constraints, "critical,CA:FALSE");
        add_extension(certificate, signer, NID_ext_key_usage, "serverAuth");
        add_extension(certificate, signer, NID_subject_alt_name, wish.alternative_names);
    } else {
        add_extension(certificate, signer, NID_basic_constraints, "critical,CA:TRUE");
        add_extension(certificate, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    must(X509_sign(certificate, issuer ? issuer->key.get() : made.key.get(), EVP_sha256()) > 0,
         "cannot sign");
    return made;
}

} // namespace

Certificates make_certificates() {
    constexpr char kHere[] = "IP:127.0.0.1,DNS:localhost";
    Certificates all;
    all.authority = make_credentials({"Lab CA", nullptr, 30 * kDay}, nullptr);
    Credentials stranger = make_credentials({"Unknown CA", nullptr, 30 * kDay}, nullptr);
    all.good = make_credentials({"Lab cloud", kHere, 30 * kDay}, &all.authority);
    all.unknown_ca = make_credentials({"Lab cloud", kHere, 30 * kDay}, &stranger);
    all.wrong_host = make_credentials({"Other cloud", "DNS:other.example.net", 30 * kDay}, &all.authority);
    all.expired = make_credentials({"Lab cloud", kHere, -kDay}, &all.authority);
    return all;
}

std::string certificate_text(const X509 *certificate) {
    std::unique_ptr<BIO, int (*)(BIO *)> memory(BIO_new(BIO_s_mem()), BIO_free);
    must(memory && PEM_write_bio_X509(memory.get(), certificate) == 1, "cannot print");
    char *data = nullptr;
    long length = BIO_get_mem_data(memory.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

static SslContext new_context() {
    SslContext context(SSL_CTX_new(TLS_server_method()));
    must(context && SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1, "no TLS");
    // A client that goes on with a session after a change of certificates would not see them.
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
    return context;
}

SslContext tls_context(const std::string &certificate_file, const std::string &key_file) {
    SslContext context = new_context();
    must(SSL_CTX_use_certificate_chain_file(context.get(), certificate_file.c_str()) == 1,
         certificate_file.c_str());
    must(SSL_CTX_use_PrivateKey_file(context.get(), key_file.c_str(), SSL_FILETYPE_PEM) == 1 &&
             SSL_CTX_check_private_key(context.get()) == 1,
         key_file.c_str());
    return context;
}

SslContext tls_context(const Credentials &credentials) {
    SslContext context = new_context();
    must(SSL_CTX_use_certificate(context.get(), credentials.certificate.get()) == 1 &&
             SSL_CTX_use_PrivateKey(context.get(), credentials.key.get()) == 1,
         "cannot be used");
    return context;
}
