#include "protocol/transport/certificate_material.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/support.h"
#include "protocol/transport/certificate_region.h"
#include "protocol/transport/vlx_crypt.h"

namespace lindqvar {

void ScrambleRegion(uint8_t* data, size_t size, uint32_t seed) {
  uint64_t s = seed & 0x7FFFFFFFu;
  for (size_t i = 0; i < size; ++i) {
    s = (s * 1103515245u + 12345u) & 0x7FFFFFFFu;
    data[i] ^= static_cast<uint8_t>((s >> 16) & 0xFF);
  }
}

bool ParseCertificateRegion(const uint8_t* region, size_t size, CertificateMaterial& out) {
  CertificateMaterial m;
  if (!region || size < m.key.size()) return false;
  std::memcpy(m.key.data(), region, m.key.size());
  size_t at = m.key.size();
  CertificateItem* items[] = {&m.caBundle, &m.clientCertificate, &m.clientKey, &m.passPhrase,
                              &m.alternativePassPhrase};
  for (CertificateItem* item : items) {
    if (size - at < 4) return false;
    const uint32_t len = static_cast<uint32_t>(region[at]) |
                         (static_cast<uint32_t>(region[at + 1]) << 8) |
                         (static_cast<uint32_t>(region[at + 2]) << 16) |
                         (static_cast<uint32_t>(region[at + 3]) << 24);
    at += 4;
    if (size - at < len) return false;
    item->data = region + at;
    item->length = len;
    at += len;
  }
  out = m;
  return true;
}

const CertificateMaterial& BuiltInCertificateMaterial() {
  // The plain region stays in memory for the life of the process: its items
  // are still encrypted, only the scrambling is undone here.
  static std::vector<uint8_t> region;
  static CertificateMaterial material;
  static std::once_flag once;
  std::call_once(once, [] {
    region.assign(certificate_region::kScrambled,
                  certificate_region::kScrambled + certificate_region::kSize);
    ScrambleRegion(region.data(), region.size(), certificate_region::kSeed);
    if (!ParseCertificateRegion(region.data(), region.size(), material)) material = {};
  });
  return material;
}

CSecureBuffer::CSecureBuffer(size_t size)
    : m_data(new (std::nothrow) uint8_t[size]()), m_size(0), m_capacity(m_data ? size : 0) {}

CSecureBuffer::~CSecureBuffer() { Reset(); }

CSecureBuffer::CSecureBuffer(CSecureBuffer&& other) noexcept
    : m_data(std::move(other.m_data)),
      m_size(std::exchange(other.m_size, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)) {}

CSecureBuffer& CSecureBuffer::operator=(CSecureBuffer&& other) noexcept {
  if (this != &other) {
    Reset();
    m_data = std::move(other.m_data);
    m_size = std::exchange(other.m_size, 0);
    m_capacity = std::exchange(other.m_capacity, 0);
  }
  return *this;
}

void CSecureBuffer::Reset() {
  if (m_data) OPENSSL_cleanse(m_data.get(), m_capacity);
  m_data.reset();
  m_size = 0;
  m_capacity = 0;
}

namespace {

using UniqueBio = std::unique_ptr<BIO, decltype(&BIO_free)>;

UniqueBio TextBio(const CSecureBuffer& text) {
  // Length -1: the BIO reads the NUL-terminated text that decrypt_blob made.
  return UniqueBio(BIO_new_mem_buf(text.Data(), -1), &BIO_free);
}

}  // namespace

int Aes128Cbc(const std::array<uint8_t, 16>& key, const uint8_t* input, uint32_t length,
              int encrypt, CSecureBuffer& out) {
  out.Reset();
  static const uint8_t kZeroIv[16] = {};
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                      &EVP_CIPHER_CTX_free);
  if (!ctx || !input) return -1;
  if (EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key.data(), kZeroIv,
                        encrypt ? 1 : 0) != 1)
    return -1;
  CSecureBuffer buffer(static_cast<size_t>(length) + 32);
  if (!buffer.Data()) return -1;
  int produced = 0;
  if (EVP_CipherUpdate(ctx.get(), buffer.Data(), &produced, input, static_cast<int>(length)) != 1)
    return -1;
  int last = 0;
  if (EVP_CipherFinal_ex(ctx.get(), buffer.Data() + produced, &last) != 1) return -1;
  buffer.SetSize(static_cast<size_t>(produced) + static_cast<size_t>(last));
  out = std::move(buffer);
  return 0;
}

int decrypt_blob(const CertificateMaterial& material, const CertificateItem& item,
                 CSecureBuffer& out) {
  out.Reset();
  CSecureBuffer plain;
  if (Aes128Cbc(material.key, item.data, item.length, 0, plain) != 0 || plain.Empty()) return -1;
  CSecureBuffer text(plain.Size() + 1);
  if (!text.Data()) return -1;
  std::memcpy(text.Data(), plain.Data(), plain.Size());
  text.Data()[plain.Size()] = 0;
  text.SetSize(plain.Size());
  out = std::move(text);
  return 0;
}

int load_ca_bundle(SSL_CTX* context, const CertificateMaterial& material) {
  CSecureBuffer text;
  if (!context || decrypt_blob(material, material.caBundle, text) != 0) return -1;
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  UniqueBio bio = TextBio(text);
  if (!store || !bio) return -1;
  auto freeInfos = [](STACK_OF(X509_INFO) * s) { sk_X509_INFO_pop_free(s, X509_INFO_free); };
  std::unique_ptr<STACK_OF(X509_INFO), decltype(freeInfos)> infos(
      PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr), freeInfos);
  if (!infos) return -1;
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (info && info->x509) X509_STORE_add_cert(store, info->x509);
  }
  return 0;
}

int load_client_identity(SSL_CTX* context, const CertificateMaterial& material, int mode,
                         ISupportLibrary& support) {
  CSecureBuffer certText, keyText;
  if (decrypt_blob(material, material.clientCertificate, certText) != 0) return -1;
  if (decrypt_blob(material, material.clientKey, keyText) != 0) return -1;
  if (!context) return -1;

  UniqueBio certBio = TextBio(certText);
  std::unique_ptr<X509, decltype(&X509_free)> certificate(
      certBio ? PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr) : nullptr, &X509_free);
  if (!certificate) return -1;
  if (support.cfg_is_fips_mode_enabled() && !VlxX509IsFipsCompliant(certificate.get())) return -1;
  if (SSL_CTX_use_certificate(context, certificate.get()) != 1) return -1;

  // The key must be an RSA key, as the product's material always is.
  UniqueBio keyBio = TextBio(keyText);
  PassPhraseRequest passPhrase{&material,
                               mode == 1 ? &material.alternativePassPhrase : &material.passPhrase};
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, PassPhraseCallback, &passPhrase)
             : nullptr,
      &EVP_PKEY_free);
  if (!key || !EVP_PKEY_is_a(key.get(), "RSA")) return -1;
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1) return -1;
  return 0;
}

int PassPhraseCallback(char* buffer, int size, int /*rwflag*/, void* userdata) {
  const auto* request = static_cast<const PassPhraseRequest*>(userdata);
  if (!buffer || size <= 0 || !request || !request->material || !request->passPhrase) return 0;
  CSecureBuffer plain;
  if (decrypt_blob(*request->material, *request->passPhrase, plain) != 0) return 0;
  const size_t n = std::min(std::strlen(plain.Text()), static_cast<size_t>(size) - 1);
  std::memcpy(buffer, plain.Data(), n);
  buffer[n] = '\0';
  buffer[size - 1] = '\0';
  return static_cast<int>(n);
}

}  // namespace lindqvar
