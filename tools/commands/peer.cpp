#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/commands/transfer_options.h"
#include "tools/hci/packet.h"
#include "tools/link/le_peer.h"

namespace bthalctl {
namespace {

struct PeerValues : TransferValues {
  std::string target;
  bool no_reset = false;
};

void PrepareController(Exchange& exchange, const PeerValues& values) {
  if (values.no_reset) {
    UnmaskEvents(exchange);
  } else {
    ResetController(exchange);
  }
}

void ReadName(const Options& options, const PeerValues& values) {
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  PrepareController(exchange, values);
  LePeer peer(exchange, values.target);
  const std::string name = peer.ReadDeviceName();
  const std::string address = AddressText(peer.advertisement().address);
  if (values.json) {
    std::puts(nlohmann::json{{"address", address}, {"name", name}}.dump().c_str());
  } else {
    std::printf("%s is called \"%s\"\n", address.c_str(), name.c_str());
  }
}

void Echo(const Options& options, const PeerValues& values) {
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  PrepareController(exchange, values);
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
  LePeer peer(exchange, values.target);
  RunTransfer(exchange, {{PacketType::kAcl, peer.handle(), bytes, count, true}}, values, "echo");
}

}  // namespace

void AddPeer(CLI::App& app, const Options& options) {
  const auto add = [&](void (*run)(const Options&, const PeerValues&), const char* name,
                       const char* what) {
    auto declared = AddCommand(app, options, run, name, what, "for a script");
    auto& [command, values] = declared;
    command.add_option("PEER", values.target, "address, or the name that the peer advertises")
        ->required();
    command.add_flag("--no-reset", values.no_reset,
                     "no HCI Reset before it, which would undo what the extensions have set");
    return declared;
  };
  add(ReadName, "read-name", "connect to an LE peer and read its device name")
      .command.footer("Example:\n  bthalctl read-name \"ZVK GATT\"");
  const auto echo =
      add(Echo, "echo", "connect to an LE peer that sends ACL data back, and check it");
  AddTransferOptions(echo.command, echo.values.transfer);
  echo.command.footer("Example:\n  bthalctl echo \"ZVK Loop\" --bytes 100k");
}

}  // namespace bthalctl
