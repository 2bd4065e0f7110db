#pragma once

#include <memory>

#include "sim/controller/command_group.h"
#include "sim/firmware/download.h"

namespace zvk {

// The vendor commands that bring the controller up: chip id, serial speed, firmware download,
// address, sleep mode, vendor capabilities.
class BringUpCommands : public CommandGroup {
 public:
  using CommandGroup::CommandGroup;
  void Register(CommandTable* table) override;

  // In the middle of a download nothing but the download's own commands is taken.
  bool Takes(uint16_t opcode) const;

 private:
  Writer DownloadMinidriver();
  Writer SetDownloadConfig(ByteView params);
  Writer WriteRam(ByteView params);
  Writer LaunchRam(ByteView params);
  Writer UpdateBaudRate(ByteView params);
  Writer SetSleepMode(ByteView params);
  Writer VerboseConfig() const;

  bool fast_ = false;
  std::unique_ptr<Download> download_;
};

}  // namespace zvk
