#include "protocol/certificate_material.h"

#include <openssl/crypto.h>

#include <cstring>
#include <mutex>
#include <utility>

#include "protocol/certificate_region.h"

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
    const uint32_t len = static_cast<uint32_t>(region[at]) | (static_cast<uint32_t>(region[at + 1]) << 8) |
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

CSecureBuffer::~CSecureBuffer() { reset(); }

CSecureBuffer::CSecureBuffer(CSecureBuffer&& other) noexcept
    : m_data(std::move(other.m_data)),
      m_size(std::exchange(other.m_size, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)) {}

CSecureBuffer& CSecureBuffer::operator=(CSecureBuffer&& other) noexcept {
  if (this != &other) {
    reset();
    m_data = std::move(other.m_data);
    m_size = std::exchange(other.m_size, 0);
    m_capacity = std::exchange(other.m_capacity, 0);
  }
  return *this;
}

void CSecureBuffer::reset() {
  if (m_data) OPENSSL_cleanse(m_data.get(), m_capacity);
  m_data.reset();
  m_size = 0;
  m_capacity = 0;
}

}  // namespace lindqvar
