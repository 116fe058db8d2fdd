// The scrambled data region that carries the agent's certificate material,
// generated at build time (cmake/embed_certificates.cmake). Read it through
// BuiltInCertificateMaterial() in protocol/transport/certificate_material.h.
#pragma once

#include <cstdint>

namespace lindqvar::certificate_region {

extern const uint32_t kSeed;
extern const uint32_t kSize;
extern const uint8_t kScrambled[];

}  // namespace lindqvar::certificate_region
