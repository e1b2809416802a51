// Random (version 4) universally unique identifiers in their standard upper-case text form,
// e.g. "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace gb {

// 16 random bytes stamped with the version (4) and the RFC 4122 variant, as text.
[[nodiscard]] std::string uuidString(std::array<uint8_t, 16> randomBytes);

// A new identifier from the process's random source. Any thread.
[[nodiscard]] std::string makeUUIDString();

}  // namespace gb
