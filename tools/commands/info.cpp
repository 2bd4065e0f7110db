#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/hci/names.h"
#include "tools/hci/packet.h"
#include "tools/link/exchange.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

Reader Returns(const CommandAnswer& answer) {
  Reader in(answer.parameters);
  in.Skip(1);  // status
  return in;
}

Json Info(Exchange& exchange) {
  Json info;
  const CommandAnswer version = exchange.Demand(opcode::kReadLocalVersion);
  Reader in = Returns(version);
  info["core_version"] = CoreVersion(in.U8());
  info["hci_revision"] = in.U16();
  in.Skip(1);
  info["manufacturer"] = in.U16();
  info["subversion"] = in.U16();
  const CommandAnswer address = exchange.Demand(opcode::kReadBdAddr);
  info["address"] = AddressText(Returns(address).Take(6));
  const CommandAnswer name = exchange.Demand(opcode::kReadLocalName);
  const Bytes text = Returns(name).Rest();
  info["name"] = std::string(text.begin(), std::find(text.begin(), text.end(), 0));
  const CommandAnswer features = exchange.Demand(opcode::kReadLocalFeatures);
  info["features"] = HexText(Returns(features).Rest());
  const CommandAnswer le_features = exchange.Demand(opcode::kLeReadLocalFeatures);
  info["le_features"] = HexText(Returns(le_features).Rest());
  const CommandAnswer buffers = exchange.Demand(opcode::kReadBufferSize);
  in = Returns(buffers);
  const uint16_t acl_bytes = in.U16();
  const uint8_t sco_bytes = in.U8();
  const uint16_t acl_count = in.U16();
  info["buffers"] = {
      {"acl_bytes", acl_bytes}, {"acl", acl_count}, {"sco_bytes", sco_bytes}, {"sco", in.U16()}};
  return info;
}

void PrintInfo(const Json& info) {
  const Json& buffers = info["buffers"];
  std::printf("name         %s\n", info["name"].get<std::string>().c_str());
  std::printf("address      %s\n", info["address"].get<std::string>().c_str());
  std::printf(
      "version      Bluetooth %s, manufacturer 0x%04X, subversion 0x%04X, revision 0x%04X\n",
      info["core_version"].get<std::string>().c_str(), info["manufacturer"].get<unsigned>(),
      info["subversion"].get<unsigned>(), info["hci_revision"].get<unsigned>());
  std::printf("features     %s\n", info["features"].get<std::string>().c_str());
  std::printf("LE features  %s\n", info["le_features"].get<std::string>().c_str());
  std::printf("buffers      ACL %u of %u bytes, SCO %u of %u bytes\n",
              buffers["acl"].get<unsigned>(), buffers["acl_bytes"].get<unsigned>(),
              buffers["sco"].get<unsigned>(), buffers["sco_bytes"].get<unsigned>());
}

void ShowInfo(const Options& options, const CommandValues& values) {
  const auto link = OpenLink(options);
  Exchange exchange(*link);
  const Json info = Info(exchange);
  if (values.json) {
    std::puts(info.dump(2).c_str());
  } else {
    PrintInfo(info);
  }
}

}  // namespace

void AddInfo(CLI::App& app, const Options& options) {
  AddCommand(app, options, ShowInfo, "info", "the controller's version, address and features",
             "for a script");
}

}  // namespace bthalctl
