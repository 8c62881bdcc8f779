#include "self_signed.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace qvserver {
namespace {

constexpr long kValidSeconds = 7L * 24 * 3600;

void Check(bool ok, const char* step) {
    if (!ok) throw std::runtime_error(std::string("certificate: ") + step + " failed");
}

void AddAltNames(X509* cert) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext =
        X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    Check(ext != nullptr, "subjectAltName");
    int added = X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
    Check(added == 1, "X509_add_ext");
}

}  // namespace

SelfSigned MakeSelfSigned() {
    SelfSigned made;
    made.key.reset(EVP_EC_gen("P-256"));
    Check(made.key != nullptr, "EVP_EC_gen");
    made.cert.reset(X509_new());
    X509* cert = made.cert.get();
    Check(cert != nullptr, "X509_new");
    Check(X509_set_version(cert, 2) == 1, "X509_set_version");
    Check(ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) == 1, "serial number");
    Check(X509_gmtime_adj(X509_getm_notBefore(cert), -3600) != nullptr, "notBefore");
    Check(X509_gmtime_adj(X509_getm_notAfter(cert), kValidSeconds) != nullptr, "notAfter");
    Check(X509_set_pubkey(cert, made.key.get()) == 1, "X509_set_pubkey");
    X509_NAME* name = X509_get_subject_name(cert);
    Check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                                     0) == 1,
          "subject");
    Check(X509_set_issuer_name(cert, name) == 1, "issuer");
    AddAltNames(cert);
    Check(X509_sign(cert, made.key.get(), EVP_sha256()) > 0, "X509_sign");
    return made;
}

std::string CertificatePem(X509* cert) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
    Check(bio && PEM_write_bio_X509(bio.get(), cert) == 1, "PEM_write_bio_X509");
    char* data = nullptr;
    long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(length));
}

}  // namespace qvserver
