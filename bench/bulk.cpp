#include "bulk.h"

#include <thread>

#include "measure.h"
#include "usage.h"

namespace bench {
namespace {

constexpr size_t kDataBytes = 1021;
constexpr size_t kHeaderBytes = 4;

Bytes Packet() {
  Bytes packet(kHeaderBytes + kDataBytes, 0x5A);
  packet[0] = 1;  // handle
  packet[1] = 0;
  packet[2] = kDataBytes & 0xFF;
  packet[3] = kDataBytes >> 8;
  return packet;
}

using Clock = std::chrono::steady_clock;

}  // namespace

BulkFigures MoveBulk(std::chrono::milliseconds time, SerialController* controller, Relay* relay,
                     Sink* sink) {
  AwaitPath(relay, sink);
  const Bytes packet = Packet();
  const size_t host_before = sink->acl().bytes(), controller_before = controller->acl().bytes();
  const double cpu_before = CpuSeconds(relay->pids());
  const auto begin = Clock::now();
  const auto end = begin + time;
  size_t to_host = 0, to_controller = 0;
  std::thread controller_sends([&] {
    for (; Clock::now() < end; to_host += packet.size()) controller->SendAcl(packet);
  });
  for (; Clock::now() < end; to_controller += packet.size()) relay->SendAcl(packet);
  controller_sends.join();
  sink->acl().WaitFor(host_before + to_host);
  controller->acl().WaitFor(controller_before + to_controller);
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const size_t at_host = sink->acl().bytes() - host_before;
  const size_t at_controller = controller->acl().bytes() - controller_before;
  const double megabytes = static_cast<double>(at_host + at_controller) * 1e-6;
  BulkFigures figures;
  figures.bytes = to_host + to_controller;
  figures.lost_bytes = figures.bytes - at_host - at_controller;
  figures.to_host_mb_per_s = static_cast<double>(at_host) * 1e-6 / seconds;
  figures.to_controller_mb_per_s = static_cast<double>(at_controller) * 1e-6 / seconds;
  figures.cpu_ms_per_mb = (CpuSeconds(relay->pids()) - cpu_before) * 1e3 / megabytes;
  return figures;
}

}  // namespace bench
