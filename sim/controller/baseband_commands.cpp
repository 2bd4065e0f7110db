#include <map>

#include "sim/controller/groups.h"
#include "sim/wire.h"

namespace zvk {
namespace {

constexpr size_t kNameBytes = 248;
constexpr auto kInquiryUnit = std::chrono::milliseconds(1280);

// A value that one command writes and another reads (Bluetooth Core 5.3, Vol 4, Part E, 7.2, 7.3).
struct Setting {
  uint16_t write;  // 0: only read
  uint16_t read;   // 0: only written
  size_t size;     // bytes
  uint64_t initial;
};

constexpr Setting kSettings[] = {
    {0x080F, 0x080E, 2, 0},           // default link policy
    {0x0C05, 0, 1, 0},                // event filter
    {0x0C0A, 0x0C09, 1, 0},           // PIN type
    {0x0C16, 0x0C15, 2, 0x1FA0},      // connection accept time-out
    {0x0C18, 0x0C17, 2, 0x2000},      // page time-out
    {0x0C1A, 0x0C19, 1, 0},           // scan enable
    {0x0C1C, 0x0C1B, 4, 0x00120800},  // page scan activity
    {0x0C1E, 0x0C1D, 4, 0x00121000},  // inquiry scan activity
    {0x0C20, 0x0C1F, 1, 0},           // authentication enable
    {0x0C24, 0x0C23, 3, 0},           // class of device
    {0x0C26, 0x0C25, 2, 0x0060},      // voice setting
    {0x0C2F, 0x0C2E, 1, 0},           // synchronous flow control
    {0x0C3A, 0x0C39, 4, 0x9E8B3301},  // current IAC: one, the general one
    {0x0C43, 0x0C42, 1, 0},           // inquiry scan type
    {0x0C45, 0x0C44, 1, 0},           // inquiry mode
    {0x0C47, 0x0C46, 1, 0},           // page scan type
    {0x0C49, 0x0C48, 1, 0},           // AFH channel assessment
    {0x0C52, 0x0C51, 241, 0},         // extended inquiry response
    {0x0C56, 0x0C55, 1, 0},           // simple pairing
    {0x0C59, 0x0C58, 1, 0},           // inquiry transmit power
    {0x0C5B, 0x0C5A, 1, 0},           // erroneous data reporting
    {0x0C6D, 0x0C6C, 2, 0},           // LE host support
    {0x0C7A, 0x0C79, 1, 0},           // secure connections host support
};

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

BasebandCommands::BasebandCommands(Context& context, std::function<void()> reset)
    : CommandGroup(context), reset_(std::move(reset)) {
  BasebandCommands::Reset();
}

void BasebandCommands::Reset() {
  context_.out.ResetMasks();
  context_.loop.Cancel(&inquiry_);
  host_name_.clear();
  settings_.clear();
  for (const Setting& setting : kSettings) {
    Bytes& value = settings_[setting.write];
    for (size_t i = 0; i < setting.size; ++i) {
      value.push_back(i < 8 ? static_cast<uint8_t>(setting.initial >> (8 * i)) : uint8_t{0});
    }
  }
}

void BasebandCommands::Register(CommandTable* table) {
  table->Complete(0x0C03, 0, [this](ByteView) {
    reset_();
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C01, 8, [this](ByteView p) {
    context_.out.SetMask(p.Little(0, 8));
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C63, 8, [this](ByteView p) {
    context_.out.SetMask2(p.Little(0, 8));
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C13, kNameBytes, [this](ByteView p) {
    host_name_ = p.Sub(0, kNameBytes).Copy();
    return Writer{status::kSuccess};
  });
  table->Complete(0x0C14, 0, [this](ByteView) {
    Writer answer{status::kSuccess};
    if (!host_name_.empty()) return answer.Append(host_name_);
    const std::string& name = context_.chip.local_name;
    return answer.Append(ByteView(name)).Zeros(kNameBytes - name.size());
  });
  RegisterSettings(table);
  RegisterInquiry(table);
}

void BasebandCommands::RegisterSettings(CommandTable* table) {
  for (const Setting& setting : kSettings) {
    table->Complete(setting.write, setting.size == 241 ? 1 : setting.size, [=](ByteView p) {
      Bytes value = p.Sub(0, setting.size).Copy();
      value.resize(setting.size);
      settings_[setting.write] = value;
      return Writer{status::kSuccess};
    });
    if (setting.read != 0) {
      table->Complete(setting.read, 0, [=](ByteView) {
        return Writer{status::kSuccess}.Append(settings_[setting.write]);
      });
    }
  }
  // Inquiry access codes that it can listen for at a time (Bluetooth Core 5.3, 4.E.7.3.43).
  table->Complete(0x0C38, Writer{status::kSuccess}.U8(1));
  // Stored link keys: there is room for none.
  table->Complete(0x0C0D, 7, [](ByteView) { return Writer{status::kSuccess}.U16(0).U16(0); });
  table->Complete(0x0C12, 7, [](ByteView) { return Writer{status::kSuccess}.U16(0); });
}

// Nobody answers an inquiry: the simulated air is Low Energy only.
void BasebandCommands::RegisterInquiry(CommandTable* table) {
  table->Status(0x0401, 5, [this](ByteView p) {
    if (inquiry_ != EventLoop::kNoTimer) return status::kDisallowed;
    if (p[3] == 0 || p[3] > 0x30) return status::kInvalidParameters;
    inquiry_ = context_.loop.After(kInquiryUnit * p[3], [this] {
      inquiry_ = EventLoop::kNoTimer;
      context_.out.Event(event::kInquiryComplete, Writer{status::kSuccess});
    });
    return status::kSuccess;
  });
  table->Complete(0x0402, 0, [this](ByteView) {
    if (inquiry_ == EventLoop::kNoTimer) return Writer{status::kDisallowed};
    context_.loop.Cancel(&inquiry_);
    return Writer{status::kSuccess};
  });
}

}  // namespace

std::unique_ptr<CommandGroup> MakeBasebandCommands(Context& context, std::function<void()> reset) {
  return std::make_unique<BasebandCommands>(context, std::move(reset));
}

}  // namespace zvk
