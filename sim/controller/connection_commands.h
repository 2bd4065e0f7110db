#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "sim/controller/ccc_commands.h"
#include "sim/controller/command_group.h"
#include "sim/controller/data_flow.h"
#include "sim/controller/le_state.h"
#include "sim/radio/peer.h"

namespace zvk {

// LE connections to the peers in the air: making and ending them, their parameters, their data.
class ConnectionCommands : public CommandGroup {
 public:
  ConnectionCommands(Context& context, LeState& le, DataFlow& flow, CccCommands& ccc)
      : CommandGroup(context), le_(le), flow_(flow), ccc_(ccc) {}
  ~ConnectionCommands() override { ConnectionCommands::Reset(); }
  void Register(CommandTable* table) override;
  void Reset() override;

  // An ACL packet from the host.
  void OnAcl(ByteView packet);

 private:
  struct Connection {
    const Advertiser* advertiser;
    std::unique_ptr<Peer> peer;
    uint16_t tx_octets = 27;  // of a fragment towards the host
    EventLoop::Time since = EventLoop::Clock::now();
    uint16_t interval = 0;  // in units of 1.25 ms

    // Of its connection events, the number of the last.
    uint16_t EventCounter() const;
  };
  struct Wanted {
    std::optional<std::pair<uint8_t, Address>> peer;  // none: anybody on the accept list
    uint16_t interval;
    uint16_t latency;
    uint16_t timeout;
  };

  void RegisterMaking(CommandTable* table);
  void RegisterParameters(CommandTable* table);
  void RegisterProcedures(CommandTable* table);
  uint8_t Create(LeState::Api api, const Wanted& wanted);
  const Advertiser* FindWanted() const;
  Writer CancelCreate();
  void Establish(const Advertiser& advertiser);
  void ReportConnection(uint8_t status, uint16_t handle, const Advertiser* advertiser);
  Connection* Find(uint16_t handle);
  void SendToHost(uint16_t handle, bool first, ByteView fragment);
  // Runs report after the time that the air takes, if the connection still exists then.
  uint8_t Later(uint16_t handle, std::function<void()> report);
  // Command Status, and report after the time that the air takes.
  void AddProcedure(
      CommandTable* table, uint16_t opcode, size_t min_params,
      std::function<void(uint16_t handle, Connection& connection, ByteView params)> report);
  // Command Complete with status, handle and what answer gives.
  void ForConnection(CommandTable* table, uint16_t opcode, size_t min_params,
                     std::function<Writer(uint16_t handle, ByteView params)> answer);

  LeState& le_;
  DataFlow& flow_;
  CccCommands& ccc_;
  std::map<uint16_t, Connection> connections_;  // by handle
  std::optional<Wanted> wanted_;                // a connection is being made
  EventLoop::TimerId making_ = EventLoop::kNoTimer;
  std::map<uint64_t, EventLoop::TimerId> pending_;  // procedures that the air delays
  uint64_t last_pending_ = 0;
};

}  // namespace zvk
