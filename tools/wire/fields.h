// The parameters of a packet in words, by a description of its fields.
//
// A description is a list of types, separated by blanks. A type may have a label (":page_scan");
// "_" in labels and names stands for a blank.
//   u8 u16 u24 u32 u64     a number; with factor and unit: u16*0.625ms
//   i8 i16                 a signed one; 127 dBm is "unknown"
//   x8 … x64               a number in hex
//   u8(off|on||255=auto)   with names, from 0 on
//   b16, b                 so many bytes in hex, all that are left
//   d8, d16                a length of one or two bytes, and as many bytes in hex
//   s248                   a text that ends at a zero
//   ad, ad31               advertising data, with a length before them or of that length
//   -2                     bytes that are not shown
//   status handle addr taddr opcode version codec codecid uuid att atterror
//   [n8:sets …]            a count, and so many times the fields; m8: once for each bit of a mask
//   [* …]                  the fields again and again to the end of the packet
//   ?                      the packet may end here
// Others, such as "role" and "phy", are short for one of these: see fields.cpp.
#pragma once

#include <string>
#include <string_view>

#include "tools/wire/bytes.h"

namespace wire {

struct FieldsText {
  std::string text;    // "handle 0x040, interval 7.5 ms"
  size_t size = 0;     // bytes that it tells of
  bool whole = false;  // false: the bytes end before the fields do
};
// Reads nothing beyond bytes, whatever counts and lengths in them say.
FieldsText DescribeFields(std::string_view fields, ByteView bytes);

// "01 AB", of more than limit bytes "01 AB ... (99 bytes)".
std::string HexText(ByteView bytes, size_t limit = SIZE_MAX);
// How many bytes of a field are shown.
constexpr size_t kShownBytes = 24;

}  // namespace wire
