// The controller's data buffers, as it announces them to the host.
#pragma once

#include <cstdint>

namespace zvk {

constexpr uint16_t kAclBytes = 1021;
constexpr uint16_t kAclBuffers = 10;
constexpr uint8_t kScoBytes = 255;
constexpr uint16_t kScoBuffers = 8;
constexpr uint16_t kLeAclBytes = 251;
constexpr uint8_t kLeAclBuffers = 12;
constexpr uint16_t kIsoBytes = 1021;
constexpr uint8_t kIsoBuffers = 8;

}  // namespace zvk
