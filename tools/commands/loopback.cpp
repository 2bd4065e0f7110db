#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/commands/commands.h"
#include "tools/commands/transfer_options.h"
#include "tools/hci/packet.h"
#include "tools/link/le_peer.h"

namespace bthalctl {
namespace {

// ISO data in local loopback needs no connection: any handle without one will do.
constexpr uint16_t kIsoHandle = 0x0E00;
constexpr std::chrono::seconds kConnectTime{5};

// The controller loops everything back while this lives.
class LocalLoopback {
 public:
  explicit LocalLoopback(Exchange& exchange) : exchange_(exchange) {
    exchange.Demand(opcode::kWriteLoopbackMode, {1});
  }
  ~LocalLoopback() {
    try {
      exchange_.Command(opcode::kWriteLoopbackMode, {0});
      exchange_.Command(opcode::kReset);
    } catch (const Failure&) {
      // The link is gone, and with it the mode.
    } catch (const Interrupted&) {
    }
  }
  LocalLoopback(const LocalLoopback&) = delete;
  LocalLoopback& operator=(const LocalLoopback&) = delete;

 private:
  Exchange& exchange_;
};

std::map<PacketType, Stream> Buffers(Exchange& exchange, bool iso) {
  std::map<PacketType, Stream> streams;
  const CommandAnswer buffers = exchange.Demand(opcode::kReadBufferSize);
  Reader in(buffers.parameters);
  in.Skip(1);
  const uint16_t acl_bytes = in.U16();
  const uint8_t sco_bytes = in.U8();
  streams[PacketType::kAcl] = {PacketType::kAcl, 0, acl_bytes, in.U16(), true};
  streams[PacketType::kSco] = {PacketType::kSco, 0, sco_bytes, in.U16(), false};
  if (iso) {
    const CommandAnswer le_buffers = exchange.Demand(opcode::kLeReadBufferSizeV2);
    Reader le_in(le_buffers.parameters);
    le_in.Skip(4);
    const uint16_t iso_bytes = le_in.U16();
    streams[PacketType::kIso] = {PacketType::kIso, kIsoHandle, iso_bytes, le_in.U8(), true};
  }
  return streams;
}

// The controller announces the connections of the loopback by events.
void TakeHandles(Exchange& exchange, std::map<PacketType, Stream>& streams) {
  const TimePoint deadline = Clock::now() + kConnectTime;
  bool acl = false;
  bool sco = false;
  while (!acl || !sco) {
    const auto event = exchange.NextEvent(event::kConnectionComplete, deadline);
    if (!event) throw Failure("the controller announced no loopback connections");
    Reader in(event->bytes);
    in.Skip(2);
    const uint8_t status = in.U8();
    const uint16_t handle = in.U16() & 0x0FFF;
    in.Skip(6);
    const bool is_acl = in.U8() == 1;
    if (status != 0) continue;
    bool& have = is_acl ? acl : sco;
    if (!have) streams[is_acl ? PacketType::kAcl : PacketType::kSco].handle = handle;
    have = true;
  }
}

struct LoopbackValues : TransferValues {
  std::vector<std::string> types = {"acl", "sco", "iso"};
};

void Loopback(const Options& options, const LoopbackValues& values) {
  std::vector<PacketType> wanted;
  for (const std::string& type : values.types) {
    wanted.push_back(type == "acl"   ? PacketType::kAcl
                     : type == "sco" ? PacketType::kSco
                                     : PacketType::kIso);
  }
  const bool iso = std::count(wanted.begin(), wanted.end(), PacketType::kIso) > 0;
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  ResetController(exchange);
  std::map<PacketType, Stream> all = Buffers(exchange, iso);
  const LocalLoopback loopback(exchange);
  TakeHandles(exchange, all);
  std::vector<Stream> streams;
  streams.reserve(wanted.size());
  for (const PacketType type : wanted) streams.push_back(all[type]);
  RunTransfer(exchange, streams, values, "loopback");
}

}  // namespace

void AddLoopback(CLI::App& app, const Options& options) {
  auto [command, values] = AddCommand(
      app, options, Loopback, "loopback",
      "move data through the controller's local loopback and check every byte", "for a script");
  command.add_option("--types", values.types, "kinds of packets, mixed: acl,sco,iso")
      ->delimiter(',')
      ->check(CLI::IsMember({"acl", "sco", "iso"}))
      ->capture_default_str();
  AddTransferOptions(command, values.transfer);
  command.footer(
      "Examples:\n  bthalctl loopback --bytes 10M\n"
      "  bthalctl loopback --types acl --pattern control --size 1 --bytes 20000");
}

}  // namespace bthalctl
