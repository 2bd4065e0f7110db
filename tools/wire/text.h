// Bytes and device addresses as people write and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/wire/bytes.h"

namespace wire {

// "04 0e 04", at most limit bytes and then "…".
std::string Hex(ByteView bytes, size_t limit = SIZE_MAX);

// "01 02", "0102", "01:02", "0x01,0x02". Nothing for any other text; mistake, if not null, then
// says what is wrong with it and where.
std::optional<Bytes> ParseHex(const std::string& text, std::string* mistake = nullptr);

// A device address is least significant byte first, as on the air; its text, "AA:BB:CC:DD:EE:FF",
// begins with the most significant byte.
std::string AddressText(ByteView address);
std::optional<Bytes> ParseAddress(const std::string& text);

}  // namespace wire
