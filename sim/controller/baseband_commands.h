#pragma once

#include <functional>
#include <map>

#include "sim/controller/command_group.h"

namespace zvk {

// Reset, event masks, and the many settings that a host stack writes at bring-up and may read back.
class BasebandCommands : public CommandGroup {
 public:
  // reset is what HCI Reset does to the whole controller.
  BasebandCommands(Context& context, std::function<void()> reset);
  ~BasebandCommands() override { context_.loop.Cancel(&inquiry_); }
  void Register(CommandTable* table) override;
  void Reset() override;

 private:
  void RegisterSettings(CommandTable* table);
  void RegisterInquiry(CommandTable* table);

  const std::function<void()> reset_;
  std::map<uint16_t, Bytes> settings_;  // by the opcode that writes them
  Bytes host_name_;                     // written by the host; empty: the firmware's own
  EventLoop::TimerId inquiry_ = EventLoop::kNoTimer;
};

}  // namespace zvk
