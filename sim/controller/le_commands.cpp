#include <nettle/aes.h>

#include <algorithm>

#include "sim/controller/buffers.h"
#include "sim/controller/groups.h"

namespace zvk {
namespace {

// Encryption, extended reject, peripheral-initiated features, data length, privacy, 2M PHY,
// extended advertising, channel selection 2 (Bluetooth Core 5.3, Vol 6, Part B, 4.6).
constexpr uint64_t kLeFeatures = 0x1 | 0x4 | 0x8 | 0x20 | 0x40 | 0x100 | 0x1000 | 0x4000;
constexpr uint64_t kStates = 0x000003FFFFFFFFFF;
constexpr uint8_t kAcceptListSize = 16;
constexpr uint8_t kResolvingListSize = 8;
constexpr uint16_t kMaxTime = 2120;  // µs

Writer Success() { return {status::kSuccess}; }

// LE settings, lists and answers about the controller itself.
class LeCommands : public CommandGroup {
 public:
  LeCommands(Context& context, LeState& le) : CommandGroup(context), le_(le) {}
  void Register(CommandTable* table) override;
  void Reset() override;

 private:
  void RegisterInformation(CommandTable* table);
  void RegisterLists(CommandTable* table);
  void RegisterSettings(CommandTable* table);

  LeState& le_;
  uint16_t suggested_octets_ = 27;
  uint16_t suggested_time_ = 328;  // µs
  std::set<std::pair<uint8_t, Address>> resolving_list_;
};

void LeCommands::Reset() {
  le_ = {};
  suggested_octets_ = 27;
  suggested_time_ = 328;
  resolving_list_.clear();
}

void LeCommands::Register(CommandTable* table) {
  RegisterInformation(table);
  RegisterLists(table);
  RegisterSettings(table);
}

void LeCommands::RegisterInformation(CommandTable* table) {
  table->Complete(0x2002, Success().U16(kLeAclBytes).U8(kLeAclBuffers));
  table->Complete(0x2060,
                  Success().U16(kLeAclBytes).U8(kLeAclBuffers).U16(kIsoBytes).U8(kIsoBuffers));
  table->Complete(0x2003, Success().U64(kLeFeatures));
  table->Complete(0x201C, Success().U64(kStates));
  table->Complete(0x202F, Success().U16(kLeAclBytes).U16(kMaxTime).U16(kLeAclBytes).U16(kMaxTime));
  table->Complete(0x204A, Success().U8(0));           // periodic list
  table->Complete(0x204B, Success().U8(0xEC).U8(8));  // -20 … 8 dBm
  table->Complete(0x204C, Success().U16(0).U16(0));
  table->Complete(0x2018, 0, [this](ByteView) {
    const uint64_t high = context_.random();
    return Success().U64((high << 32) | context_.random());
  });
  table->Complete(0x2017, 32, [](ByteView p) {
    // The command has both least significant byte first, the cipher most significant first.
    uint8_t key[AES128_KEY_SIZE];
    uint8_t block[AES_BLOCK_SIZE];
    std::reverse_copy(p.begin(), p.begin() + 16, key);
    std::reverse_copy(p.begin() + 16, p.begin() + 32, block);
    aes128_ctx cipher;
    aes128_set_encrypt_key(&cipher, key);
    aes128_encrypt(&cipher, sizeof(block), block, block);
    std::reverse(std::begin(block), std::end(block));
    return Success().Append({block, sizeof(block)});
  });
}

void LeCommands::RegisterLists(CommandTable* table) {
  table->Complete(0x200F, Success().U8(kAcceptListSize));
  table->Complete(0x2010, 0, [this](ByteView) {
    le_.accept_list.clear();
    return Success();
  });
  table->Complete(0x2011, 7, [this](ByteView p) {
    if (le_.accept_list.size() >= kAcceptListSize) return Writer{status::kMemoryExceeded};
    le_.accept_list.insert({p[0], AddressAt(p, 1)});
    return Success();
  });
  table->Complete(0x2012, 7, [this](ByteView p) {
    le_.accept_list.erase({p[0], AddressAt(p, 1)});
    return Success();
  });
  table->Complete(0x202A, Success().U8(kResolvingListSize));
  table->Complete(0x2029, 0, [this](ByteView) {
    resolving_list_.clear();
    return Success();
  });
  table->Complete(0x2027, 39, [this](ByteView p) {
    if (resolving_list_.size() >= kResolvingListSize) return Writer{status::kMemoryExceeded};
    resolving_list_.insert({p[0], AddressAt(p, 1)});
    return Success();
  });
  table->Complete(0x2028, 7, [this](ByteView p) {
    const bool known = resolving_list_.erase({p[0], AddressAt(p, 1)}) > 0;
    return Writer{known ? status::kSuccess : status::kUnknownConnection};
  });
  table->Complete(0x204E, 8, [this](ByteView p) {  // privacy mode
    const bool known = resolving_list_.count({p[0], AddressAt(p, 1)}) > 0;
    return Writer{known ? status::kSuccess : status::kUnknownConnection};
  });
}

// Accepted without an effect on a simulated air, except the masks and what can be read back.
void LeCommands::RegisterSettings(CommandTable* table) {
  table->Complete(0x2001, 8, [this](ByteView p) {
    context_.out.SetLeMask(p.Little(0, 8));
    return Success();
  });
  struct Accepted {
    uint16_t opcode;
    size_t params;
  };
  constexpr Accepted kAccepted[] = {
      {0x2005, 6},  // random address
      {0x2014, 5},  // host channel classification
      {0x202D, 1},  // address resolution
      {0x202E, 2},  // resolvable private address time-out
      {0x2031, 3},  // default PHY
      {0x204D, 4},  // RF path compensation
  };
  for (const Accepted& accepted : kAccepted) {
    table->Complete(accepted.opcode, accepted.params, [](ByteView) { return Success(); });
  }
  table->Complete(0x2023, 0, [this](ByteView) {
    return Success().U16(suggested_octets_).U16(suggested_time_);
  });
  table->Complete(0x2024, 4, [this](ByteView p) {
    if (p.U16(0) < 27 || p.U16(0) > kLeAclBytes) return Writer{status::kInvalidParameters};
    suggested_octets_ = p.U16(0);
    suggested_time_ = p.U16(2);
    return Success();
  });
}

}  // namespace

std::unique_ptr<CommandGroup> MakeLeCommands(Context& context, LeState& le) {
  return std::make_unique<LeCommands>(context, le);
}

}  // namespace zvk
