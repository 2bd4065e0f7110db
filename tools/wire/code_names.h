// The one table of names: commands, events, errors, and the PDUs of the protocols above.
#pragma once

#include <cstdint>
#include <functional>

namespace wire {

struct CodeName {
  uint16_t code;
  const char* name;
};

enum class CodeKind { kCommand, kEvent, kLeEvent, kVendorEvent, kStatus, kAtt, kSmp, kSignalling };

// Null for a code without a name.
const char* NameOf(CodeKind kind, uint16_t code);
// The first row whose name is wanted; null when none is.
const CodeName* FindName(CodeKind kind, const std::function<bool(const char* name)>& wanted);

}  // namespace wire
