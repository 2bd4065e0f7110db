// The messages between the holder of an attachment and its clients: packets of a SEQPACKET socket,
// whose first byte is the kind.
#pragma once

#include <cstddef>
#include <cstdint>

namespace bthalctl::holder {

// Where the socket lies below the root folder.
constexpr char kSocket[] = "/run/bthal/holder";

// Kinds 1 to 5 are HCI packets, the kind being the H4 type: commands and data from a client,
// events and data to it. The others:
enum Kind : uint8_t {
  kStatus = 'S',  // client asks; holder answers with JSON
  kQuit = 'Q',    // client: asks to give Bluetooth up; holder answers the same when it has
};
constexpr size_t kMaxMessage = 1 + 4 + 65535;

}  // namespace bthalctl::holder
