#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zvk {

using AesBlock = std::array<uint8_t, 16>;

// AES-128 of one block (FIPS 197), for LE Encrypt.
AesBlock AesEncrypt(const AesBlock& key, const AesBlock& text);

}  // namespace zvk
