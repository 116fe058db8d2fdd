#include "protocol/transport/vlx_crypt.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <cstring>

namespace lindqvar {

SSL_CTX* VlxTlsCtxNew(const SSL_METHOD* method) {
  if (!method) return nullptr;
  return SSL_CTX_new(method);
}

namespace {

bool ApprovedDigest(int nid) {
  switch (nid) {
    case NID_sha224:
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
    case NID_sha512_224:
    case NID_sha512_256:
    case NID_sha3_224:
    case NID_sha3_256:
    case NID_sha3_384:
    case NID_sha3_512: return true;
    default: return false;
  }
}

bool ApprovedKey(EVP_PKEY* key) {
  if (EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "RSA-PSS"))
    return EVP_PKEY_get_bits(key) >= 2048;
  if (EVP_PKEY_is_a(key, "EC")) {
    char group[64] = {};
    size_t len = 0;
    if (!EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, &len))
      return false;
    return std::strcmp(group, "prime256v1") == 0 || std::strcmp(group, "P-256") == 0 ||
           std::strcmp(group, "secp384r1") == 0 || std::strcmp(group, "P-384") == 0 ||
           std::strcmp(group, "secp521r1") == 0 || std::strcmp(group, "P-521") == 0;
  }
  return false;
}

}  // namespace

int VlxX509IsFipsCompliant(X509* certificate) {
  if (!certificate) return 0;
  EVP_PKEY* key = X509_get0_pubkey(certificate);
  if (!key || !ApprovedKey(key)) return 0;
  int digest = NID_undef;
  int keyType = NID_undef;
  if (!X509_get_signature_info(certificate, &digest, &keyType, nullptr, nullptr)) return 0;
  return ApprovedDigest(digest) ? 1 : 0;
}

}  // namespace lindqvar
