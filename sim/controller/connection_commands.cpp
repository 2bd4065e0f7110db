#include "sim/controller/connection_commands.h"

#include <algorithm>

#include "sim/base/log.h"
#include "sim/controller/buffers.h"
#include "sim/wire.h"

namespace zvk {
namespace {

using Api = LeState::Api;

constexpr uint16_t kFirstHandle = 0x0040;
constexpr size_t kMostConnections = 8;
constexpr auto kAirTime = std::chrono::milliseconds(5);  // until a peer has answered
constexpr size_t kConnectBytes = 34;                     // CONNECT_IND
constexpr auto kIntervalUnit = std::chrono::microseconds(1250);
constexpr uint64_t kPeerFeatures = 0x01 | 0x20;  // encryption, data length
constexpr uint8_t kPhy1M = 1;

// Airtime of a packet at 1 Mbit/s, µs.
constexpr unsigned TimeOf(unsigned octets) { return (octets + 14) * 8; }

}  // namespace

void ConnectionCommands::Reset() {
  context_.loop.Cancel(&making_);
  wanted_.reset();
  for (auto& [id, timer] : pending_) context_.loop.Cancel(&timer);
  pending_.clear();
  connections_.clear();
  le_.connected.clear();
}

void ConnectionCommands::Register(CommandTable* table) {
  RegisterMaking(table);
  RegisterParameters(table);
  RegisterProcedures(table);
}

void ConnectionCommands::RegisterMaking(CommandTable* table) {
  table->Status(0x200D, 25, [this](ByteView p) {
    Wanted wanted{std::nullopt, p.U16(15), p.U16(17), p.U16(19)};
    if (p[4] == 0) wanted.peer = {p[5], AddressAt(p, 6)};
    return Create(Api::kLegacy, wanted);
  });
  table->Status(0x2043, 26, [this](ByteView p) {
    Wanted wanted{std::nullopt, p.U16(16), p.U16(18), p.U16(20)};
    if (p[0] == 0) wanted.peer = {p[2], AddressAt(p, 3)};
    return Create(Api::kExtended, wanted);
  });
  table->Complete(0x200E, 0, [this](ByteView) { return CancelCreate(); });
}

uint8_t ConnectionCommands::Create(Api api, const Wanted& wanted) {
  if (!le_.Use(api) || wanted_) return status::kDisallowed;
  if (connections_.size() >= kMostConnections) return status::kMemoryExceeded;
  if (wanted.peer && le_.connected.count(wanted.peer->second) > 0) {
    return status::kConnectionExists;
  }
  wanted_ = wanted;
  const Advertiser* advertiser = FindWanted();
  if (advertiser != nullptr) {
    making_ = context_.loop.After(advertiser->interval, [this, advertiser] {
      making_ = EventLoop::kNoTimer;
      Establish(*advertiser);
    });
  }  // nobody there: until the host cancels
  return status::kSuccess;
}

const Advertiser* ConnectionCommands::FindWanted() const {
  for (const Advertiser& advertiser : World()) {
    if (!advertiser.connectable() || le_.connected.count(advertiser.address) > 0) continue;
    const bool fits =
        wanted_->peer ? FindAdvertiser(wanted_->peer->first, wanted_->peer->second) == &advertiser
                      : le_.accept_list.count({advertiser.address_type, advertiser.address}) > 0;
    if (fits) return &advertiser;
  }
  return nullptr;
}

Writer ConnectionCommands::CancelCreate() {
  if (!wanted_) return {status::kDisallowed};
  context_.loop.Cancel(&making_);
  context_.then([this] { ReportConnection(status::kUnknownConnection, 0, nullptr); });
  return {status::kSuccess};
}

void ConnectionCommands::Establish(const Advertiser& advertiser) {
  uint16_t handle = kFirstHandle;
  while (connections_.count(handle) > 0) ++handle;
  Connection& connection = connections_[handle];
  connection.advertiser = &advertiser;
  connection.interval = wanted_->interval;
  connection.peer = MakePeer(
      advertiser.peer, context_.loop,
      {[this, handle](bool first, ByteView fragment) { SendToHost(handle, first, fragment); },
       [&connection] { return size_t{connection.tx_octets}; }});
  le_.connected.insert(advertiser.address);
  context_.activity.Transmit(kConnectBytes);
  ccc_.OnLinkLayer(advertiser.address, CccCommands::kConnectInd, CccCommands::kTx, 0);
  ReportConnection(status::kSuccess, handle, &advertiser);
  context_.out.LeEvent(Writer{le_event::kChannelSelection}.U16(handle).U8(1));
}

void ConnectionCommands::ReportConnection(uint8_t status, uint16_t handle,
                                          const Advertiser* advertiser) {
  constexpr uint8_t kCentral = 0;
  const bool enhanced = context_.out.LeEventEnabled(le_event::kEnhancedConnectionComplete);
  Writer report{enhanced ? le_event::kEnhancedConnectionComplete : le_event::kConnectionComplete};
  report.U8(status).U16(handle).U8(kCentral);
  if (advertiser != nullptr) {
    report.U8(advertiser->address_type).Append(advertiser->address);
  } else {
    report.Zeros(7);
  }
  if (enhanced) report.Zeros(12);  // no resolvable private addresses
  report.U16(wanted_->interval).U16(wanted_->latency).U16(wanted_->timeout).U8(0);
  wanted_.reset();
  context_.out.LeEvent(report);
}

uint16_t ConnectionCommands::Connection::EventCounter() const {
  const auto elapsed = EventLoop::Clock::now() - since;
  return static_cast<uint16_t>(elapsed / (kIntervalUnit * std::max<int>(interval, 1)));
}

ConnectionCommands::Connection* ConnectionCommands::Find(uint16_t handle) {
  const auto found = connections_.find(handle);
  return found == connections_.end() ? nullptr : &found->second;
}

uint8_t ConnectionCommands::Later(uint16_t handle, std::function<void()> report) {
  if (Find(handle) == nullptr) return status::kUnknownConnection;
  const uint64_t id = ++last_pending_;
  pending_[id] = context_.loop.After(kAirTime, [this, id, handle, report = std::move(report)] {
    pending_.erase(id);
    if (Find(handle) != nullptr) report();
  });
  return status::kSuccess;
}

void ConnectionCommands::AddProcedure(
    CommandTable* table, uint16_t opcode, size_t min_params,
    std::function<void(uint16_t handle, Connection& connection, ByteView params)> report) {
  table->Status(opcode, min_params, [this, report = std::move(report)](ByteView p) {
    const uint16_t handle = p.U16(0);
    return Later(handle, [this, handle, report, params = p.Copy()] {
      report(handle, *Find(handle), params);
    });
  });
}

void ConnectionCommands::RegisterProcedures(CommandTable* table) {
  AddProcedure(table, 0x041D, 2, [this](uint16_t handle, Connection&, ByteView) {  // version
    context_.out.Event(event::kRemoteVersion,
                       Writer{status::kSuccess}.U16(handle).U8(kCore53).U16(kNoCompany).U16(1));
  });
  AddProcedure(table, 0x2016, 2, [this](uint16_t handle, Connection&, ByteView) {  // features
    context_.out.LeEvent(
        Writer{le_event::kRemoteFeatures, status::kSuccess}.U16(handle).U64(kPeerFeatures));
  });
  AddProcedure(table, 0x2013, 14, [this](uint16_t handle, Connection& connection, ByteView p) {
    connection.interval = p.U16(4);  // connection update: largest interval, latency, time-out
    context_.out.LeEvent(
        Writer{le_event::kConnectionUpdate, status::kSuccess}.U16(handle).Append(p.Sub(4, 6)));
  });
  // Encryption: the peers keep no keys.
  AddProcedure(table, 0x2019, 28, [this](uint16_t handle, Connection&, ByteView) {
    context_.out.Event(event::kEncryptionChange,
                       Writer{status::kPinOrKeyMissing}.U16(handle).U8(0));
  });
  // PHY: the peers know 1M only.
  AddProcedure(table, 0x2032, 7, [this](uint16_t handle, Connection& connection, ByteView) {
    ccc_.OnLinkLayer(connection.advertiser->address, CccCommands::kPhyUpdateInd, CccCommands::kTx,
                     connection.EventCounter());
    context_.out.LeEvent(
        Writer{le_event::kPhyUpdate, status::kSuccess}.U16(handle).U8(kPhy1M).U8(kPhy1M));
  });
  AddProcedure(table, 0x0406, 3, [this](uint16_t handle, Connection& connection, ByteView) {
    le_.connected.erase(connection.advertiser->address);
    connections_.erase(handle);
    flow_.Forget(handle);
    context_.out.Event(event::kDisconnectionComplete,
                       Writer{status::kSuccess}.U16(handle).U8(status::kTerminatedByHost));
  });
}

void ConnectionCommands::ForConnection(
    CommandTable* table, uint16_t opcode, size_t min_params,
    std::function<Writer(uint16_t handle, ByteView params)> answer) {
  table->Complete(opcode, min_params, [this, answer = std::move(answer)](ByteView p) {
    const uint16_t handle = p.U16(0);
    if (Find(handle) == nullptr) return Writer{status::kUnknownConnection}.U16(handle);
    return Writer{status::kSuccess}.U16(handle).Append(answer(handle, p));
  });
}

void ConnectionCommands::RegisterParameters(CommandTable* table) {
  ForConnection(table, 0x2022, 6, [this](uint16_t handle, ByteView p) {  // data length
    const uint16_t octets = std::clamp<uint16_t>(p.U16(2), 27, kLeAclBytes);
    Find(handle)->tx_octets = octets;
    context_.then([this, handle, octets] {
      context_.out.LeEvent(Writer{le_event::kDataLengthChange}
                               .U16(handle)
                               .U16(octets)
                               .U16(TimeOf(octets))
                               .U16(octets)
                               .U16(TimeOf(octets)));
    });
    return Writer();
  });
  ForConnection(table, 0x2030, 2,
                [](uint16_t, ByteView) { return Writer().U8(kPhy1M).U8(kPhy1M); });
  ForConnection(table, 0x2015, 2, [](uint16_t, ByteView) {  // channel map: all 37
    return Writer().U32(0xFFFFFFFF).U8(0x1F);
  });
  ForConnection(table, 0x1405, 2, [this](uint16_t handle, ByteView) {  // RSSI
    return Writer().U8(static_cast<uint8_t>(Find(handle)->advertiser->rssi));
  });
  ForConnection(table, 0x0C2D, 3, [](uint16_t, ByteView) { return Writer().U8(0); });  // power
  // Answers to requests that no peer makes.
  constexpr uint16_t kNeverAsked[] = {0x201A, 0x201B, 0x2020, 0x2021};
  for (const uint16_t opcode : kNeverAsked) {
    ForConnection(table, opcode, 2, [](uint16_t, ByteView) { return Writer(); });
  }
}

void ConnectionCommands::SendToHost(uint16_t handle, bool first, ByteView fragment) {
  constexpr unsigned kFirst = 0x2000;  // packet boundary flags
  constexpr unsigned kContinuing = 0x1000;
  context_.activity.Receive(fragment.size());
  flow_.SendAcl(Writer()
                    .U16(handle | (first ? kFirst : kContinuing))
                    .U16(static_cast<unsigned>(fragment.size()))
                    .Append(fragment));
}

void ConnectionCommands::OnAcl(ByteView packet) {
  const uint16_t handle = packet.U16(0) & 0x0FFF;
  const bool continuing = ((packet.U16(0) >> 12) & 3) == 1;
  const Connection* connection = Find(handle);
  if (connection == nullptr) {
    Log("ACL data for handle 0x%03X, which is no connection", handle);
    return;
  }
  if (flow_.Take(DataFlow::Buffer::kLeAcl, handle)) {
    context_.activity.Transmit(packet.From(4).size());
    connection->peer->OnFragment(!continuing, packet.From(4));
  }
}

}  // namespace zvk
