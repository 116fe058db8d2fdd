// The Windows platform: every interface of platform/ implemented with the
// system's own calls, owned in one place for the life of the program.
#pragma once

#include <memory>
#include <span>

#include "platform/platform.h"

namespace lindqvar::win32 {

class CWindowsPlatform {
 public:
  explicit CWindowsPlatform(std::span<const CatalogueEvent> catalogue);
  ~CWindowsPlatform();
  // The bundle, with the product's timings.
  Platform Get() const;

 private:
  struct Parts;
  std::unique_ptr<Parts> m_parts;
};

}  // namespace lindqvar::win32
