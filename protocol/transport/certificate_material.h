// The agent's certificate material: a CA bundle, a client certificate, the
// client's RSA key protected by a pass phrase, and two pass phrases, each
// encrypted with AES-128-CBC under a 16-byte key. The build lays them out in
// one data region and stores it scrambled; the region is unscrambled once,
// and the items are decrypted only while they are loaded into the TLS
// context.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace lindqvar {

class ISupportLibrary;

// One encrypted item inside a region.
struct CertificateItem {
  const uint8_t* data = nullptr;
  uint32_t length = 0;
};

struct CertificateMaterial {
  std::array<uint8_t, 16> key{};  // AES-128 key of every item
  CertificateItem caBundle;
  CertificateItem clientCertificate;
  CertificateItem clientKey;
  CertificateItem passPhrase;             // the 16-byte blob (mode 0)
  CertificateItem alternativePassPhrase;  // the 32-byte blob (mode 1)
};

// Reverses (and applies) the region's scrambling: a byte-wise XOR with the
// keystream of a linear congruential generator started at `seed`.
void ScrambleRegion(uint8_t* data, size_t size, uint32_t seed);

// Splits an unscrambled region: key[16], then five items each preceded by
// its little-endian 32-bit length. The items point into `region`. False when
// the region is too short for what its length words say.
bool ParseCertificateRegion(const uint8_t* region, size_t size, CertificateMaterial& out);

// The material compiled into this program, unscrambled on first use and
// kept for the life of the process. Call it once at start-up to do the work
// then; later calls return the same record.
const CertificateMaterial& BuiltInCertificateMaterial();

// A heap block that is wiped (OPENSSL_cleanse) before it is freed: every
// decrypted certificate, key and pass phrase lives in one.
class CSecureBuffer {
 public:
  CSecureBuffer() = default;
  explicit CSecureBuffer(size_t size);
  ~CSecureBuffer();
  CSecureBuffer(CSecureBuffer&& other) noexcept;
  CSecureBuffer& operator=(CSecureBuffer&& other) noexcept;
  CSecureBuffer(const CSecureBuffer&) = delete;
  CSecureBuffer& operator=(const CSecureBuffer&) = delete;

  uint8_t* Data() { return m_data.get(); }
  const uint8_t* Data() const { return m_data.get(); }
  const char* Text() const { return reinterpret_cast<const char*>(m_data.get()); }
  // Bytes in use (at most the allocation).
  size_t Size() const { return m_size; }
  void SetSize(size_t size) { m_size = size <= m_capacity ? size : m_capacity; }
  bool Empty() const { return m_size == 0; }
  // Wipes and frees.
  void Reset();

 private:
  std::unique_ptr<uint8_t[]> m_data;
  size_t m_size = 0;
  size_t m_capacity = 0;
};

// The AES routine under decrypt_blob: AES-128-CBC with a zero IV; `encrypt`
// 0 decrypts, 1 encrypts. 0 or -1.
int Aes128Cbc(const std::array<uint8_t, 16>& key, const uint8_t* input, uint32_t length,
              int encrypt, CSecureBuffer& out);

// Decrypts an item with the material's key and adds a terminating NUL after
// the plain bytes, so PEM text reads as a C string. `out.Size()` is the
// plain length, the NUL excluded. 0, or -1 when the cipher fails or the
// result is empty; `out` is then empty.
int decrypt_blob(const CertificateMaterial& material, const CertificateItem& item,
                 CSecureBuffer& out);

// Adds every certificate of the decrypted CA bundle to the context's store.
// 0 when the bundle was read, else -1.
int load_ca_bundle(SSL_CTX* context, const CertificateMaterial& material);

// Installs the client certificate and its RSA key, read with the pass phrase
// that `mode` selects: 0 the 16-byte blob (what the agent passes), 1 the
// 32-byte one. With FIPS mode required by the configuration the certificate
// must pass VlxX509IsFipsCompliant, else it is not installed. 0 when both
// were installed, else -1.
int load_client_identity(SSL_CTX* context, const CertificateMaterial& material, int mode,
                         ISupportLibrary& support);

// The pass phrase a key is read with: one item of the material.
struct PassPhraseRequest {
  const CertificateMaterial* material = nullptr;
  const CertificateItem* passPhrase = nullptr;
};

// The pem_password_cb: decrypts the requested pass phrase (`userdata`, a
// PassPhraseRequest) into `buffer`, at most size - 1 characters, always
// terminated. Returns the length copied, 0 on failure.
int PassPhraseCallback(char* buffer, int size, int rwflag, void* userdata);

}  // namespace lindqvar
