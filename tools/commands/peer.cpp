#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/commands/transfer_options.h"
#include "tools/hci/codes.h"
#include "tools/link/le_peer.h"

namespace bthalctl {
namespace {

constexpr char kTargetHelp[] = "address, or the name that the peer advertises";

void Prepare(Exchange& exchange, bool reset) {
  if (reset) {
    ResetController(exchange);
  } else {
    UnmaskEvents(exchange);
  }
}

void ReadName(const Options& options, const std::string& target, bool reset, bool json) {
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  Prepare(exchange, reset);
  LePeer peer(exchange, target);
  const std::string name = peer.ReadDeviceName();
  const std::string address = AddressText(peer.advertisement().address);
  if (json) {
    std::puts(nlohmann::json{{"address", address}, {"name", name}}.dump().c_str());
  } else {
    std::printf("%s is called \"%s\"\n", address.c_str(), name.c_str());
  }
}

void Echo(const Options& options, const std::string& target, bool reset,
          const TransferFlags& flags) {
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  Prepare(exchange, reset);
  const CommandAnswer buffers = exchange.Demand(opcode::kLeReadBufferSize);
  Reader in(buffers.parameters);
  in.Skip(1);
  uint16_t bytes = in.U16();
  unsigned count = in.U8();
  if (bytes == 0) {  // LE shares the buffers of BR/EDR
    const CommandAnswer shared = exchange.Demand(opcode::kReadBufferSize);
    Reader shared_in(shared.parameters);
    shared_in.Skip(1);
    bytes = shared_in.U16();
    shared_in.Skip(1);
    count = shared_in.U16();
  }
  LePeer peer(exchange, target);
  RunTransfer(exchange, {{PacketType::kAcl, peer.handle(), bytes, count, true}}, flags, "echo");
}

}  // namespace

void AddPeer(CLI::App& app, const Options& options) {
  auto target = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  auto no_reset = std::make_shared<bool>(false);
  const auto add_no_reset = [&](CLI::App* command) {
    command->add_flag("--no-reset", *no_reset,
                      "no HCI Reset before it, which would undo what the extensions have set");
  };
  CLI::App* name =
      app.add_subcommand("read-name", "connect to an LE peer and read its device name");
  name->add_option("PEER", *target, kTargetHelp)->required();
  add_no_reset(name);
  name->add_flag("--json", *json, "for a script");
  name->footer("Example:\n  bthalctl read-name \"ZVK GATT\"");
  name->callback(
      [&options, target, no_reset, json] { ReadName(options, *target, !*no_reset, *json); });

  auto flags = std::make_shared<TransferFlags>();
  CLI::App* echo =
      app.add_subcommand("echo", "connect to an LE peer that sends ACL data back, and check it");
  echo->add_option("PEER", *target, kTargetHelp)->required();
  add_no_reset(echo);
  AddTransferFlags(*echo, *flags);
  echo->footer("Example:\n  bthalctl echo \"ZVK Loop\" --bytes 100k");
  echo->callback(
      [&options, target, no_reset, flags] { Echo(options, *target, !*no_reset, *flags); });
}

}  // namespace bthalctl
