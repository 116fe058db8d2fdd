// The agent's certificate material: a CA bundle, a client certificate, the
// client's RSA key protected by a pass phrase, and two pass phrases, each
// encrypted with AES-128-CBC under a 16-byte key. The build lays them out in
// one data region and stores it scrambled; the region is unscrambled once,
// the items are decrypted only while they are loaded (protocol/tls.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace lindqvar {

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
  CertificateItem passPhrase;             // the 16-byte blob (selector 0)
  CertificateItem alternativePassPhrase;  // the 32-byte blob (selector 1)
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

  uint8_t* data() { return m_data.get(); }
  const uint8_t* data() const { return m_data.get(); }
  const char* text() const { return reinterpret_cast<const char*>(m_data.get()); }
  // Bytes in use (at most the allocation).
  size_t size() const { return m_size; }
  size_t capacity() const { return m_capacity; }
  void set_size(size_t size) { m_size = size <= m_capacity ? size : m_capacity; }
  bool empty() const { return m_size == 0; }
  // Wipes and frees.
  void reset();

 private:
  std::unique_ptr<uint8_t[]> m_data;
  size_t m_size = 0;
  size_t m_capacity = 0;
};

}  // namespace lindqvar
