// A key and a self-signed certificate for "127.0.0.1" and "localhost", made afresh at each start:
// no client trusts it, which is what the TLS tests need.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace qvserver {

struct KeyDeleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertDeleter {
    void operator()(X509* cert) const { X509_free(cert); }
};

struct SelfSigned {
    std::unique_ptr<EVP_PKEY, KeyDeleter> key;
    std::unique_ptr<X509, CertDeleter> cert;
};

// Throws std::runtime_error when OpenSSL refuses a step.
SelfSigned MakeSelfSigned();
// The certificate in PEM form.
std::string CertificatePem(X509* cert);

}  // namespace qvserver
