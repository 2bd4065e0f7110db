#pragma once

#include <functional>

#include "sim/controller/command_group.h"

namespace zvk {

// The controller's reports of its own failures: crash reports, and dumps, in fragments, of its
// memory and the co-processor's. Event layouts are in docs/simulator.md. The bytes of a dump are
// 32-bit words, each holding its own offset.
class DebugCommands : public CommandGroup {
 public:
  using CommandGroup::CommandGroup;
  void Register(CommandTable* table) override;

  // A root inflammation report.
  void Crash(uint8_t error, uint8_t vendor_error);
  // Dumps of that many bytes: debug-info events, and quality reports of two kinds.
  void DebugInfo(size_t bytes);
  void SocDump(size_t bytes);
  void ChreDump(size_t bytes);

 private:
  void NumberedDump(uint8_t report, size_t bytes);
};

}  // namespace zvk
