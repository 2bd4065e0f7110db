// The stream from the controller, cut into reads as the input says: a count, so many sizes, which
// are taken in turn, then the stream. What comes out is what went in, in its order, whatever the
// cuts.
#include <android/log.h>

#include <algorithm>

#include "h4/h4_protocol.h"
#include "target.h"

using android::hardware::hidl_vec;
using namespace android::hardware::bluetooth::hci;

std::vector<std::string> fuzz::Seeds() {
  std::vector<std::string> streams = Packets("h4_streams.txt");
  Append(&streams, Packets("h4_garbage.txt"));
  std::vector<std::string> seeds;
  for (const char* sizes : {"", "\x01\x01", "\x03\x02\x05\x01"}) {
    Append(&seeds, Prefixed(*sizes == '\0' ? std::string(1, '\0') : sizes, streams));
  }
  return seeds;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
  fuzz::Input input(data, size);
  const std::string sizes = input.Take(input.Byte() % 8);
  const std::string stream = input.Rest();
  const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data());

  std::string out;
  bool lost = false;
  const auto receiver = [&](uint8_t type) {
    return [&, type](const hidl_vec<uint8_t>& packet) {
      fuzz::Require(!lost, "nothing is delivered after the stream is lost");
      fuzz::Require(LengthIsRight(static_cast<HciPacketType>(type), packet.data(), packet.size()),
                    "a packet is as long as its header says");
      out += static_cast<char>(type);
      out.append(packet.begin(), packet.end());
    };
  };
  H4Protocol* open = nullptr;
  TransportUpcalls upcalls;
  upcalls.lost = [&](auto, const std::string&) {
    lost = true;
    open->Close();
    return true;
  };
  H4Protocol h4(-1, receiver(4), receiver(2), receiver(3), receiver(5), upcalls);
  open = &h4;
  size_t read = 0;
  for (size_t at = 0; at < stream.size(); ++read) {
    const size_t wanted = sizes.empty() ? stream.size() : uint8_t(sizes[read % sizes.size()]) + 1u;
    const size_t chunk = std::min(wanted, stream.size() - at);
    h4.OnBytes(bytes + at, chunk);
    at += chunk;
  }
  fuzz::Require(stream.compare(0, out.size(), out) == 0, "the packets are the stream");
  const size_t rest = stream.size() - out.size();
  if (rest == 0) return 0;
  const uint8_t type = bytes[out.size()];
  const bool known = type >= HCI_PACKET_TYPE_ACL_DATA && type <= HCI_PACKET_TYPE_ISO_DATA;
  fuzz::Require(lost == !known, "the stream is lost at the first unknown type");
  if (lost) return 0;
  const HeaderFormat& format = kHeaders[type];
  const uint8_t* header = bytes + out.size() + 1;
  // A packet without payload that ends a read is delivered with the next one.
  fuzz::Require(rest - 1 <= format.size || rest - 1 < format.size + PayloadLength(format, header),
                "no packet is kept");
  return 0;
}
