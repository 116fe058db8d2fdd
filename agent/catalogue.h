// The agent's static event catalogue, written through the support
// library's LogW.
#pragma once

#include <cstdint>
#include <span>

#include "platform/support.h"

namespace lindqvar {

inline constexpr uint32_t kEventSingleSignOn = 96980;
inline constexpr uint32_t kEventEnabled = 96981;
inline constexpr uint32_t kEventDisabled = 96982;
inline constexpr uint32_t kEventStarting = 96983;
inline constexpr uint32_t kEventStopping = 96984;

inline constexpr uint32_t kSeverityInformational = 6;
inline constexpr uint32_t kSeverityWarning = 4;

std::span<const CatalogueEvent> EventCatalogue();

}  // namespace lindqvar
