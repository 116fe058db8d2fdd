// Our implementation of the endpoint client's crypto helper: the client TLS
// context constructor and the FIPS compliance test of a certificate.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace lindqvar {

// A new TLS context for `method`, with the library's defaults (no
// verification mode, cipher list or protocol bounds of its own). Null on
// failure.
SSL_CTX* VlxTlsCtxNew(const SSL_METHOD* method);

// Non-zero when the certificate meets FIPS requirements for a TLS client
// identity: an RSA key of at least 2048 bits or an EC key on P-256, P-384
// or P-521, signed with a SHA-2 or SHA-3 digest. Everything else (MD5 or
// SHA-1 signatures, short RSA keys, other curves and key types, a null
// certificate) is not compliant.
int VlxX509IsFipsCompliant(X509* certificate);

}  // namespace lindqvar
