#pragma once

#include <set>
#include <utility>

#include "sim/controller/chip.h"

namespace zvk {

// What the groups of LE commands share. Owned by the controller.
struct LeState {
  // A host may use the legacy or the extended advertising, scanning and connecting commands until
  // the next reset, not both (Core 5.3, 4.E.3.1.1).
  enum class Api { kNone, kLegacy, kExtended };

  Api api = Api::kNone;
  std::set<std::pair<uint8_t, Address>> accept_list;  // address type and address
  std::set<Address> connected;                        // peers, which do not advertise then

  // Returns false when the host has used the other kind.
  bool Use(Api wanted) {
    if (api == Api::kNone) api = wanted;
    return api == wanted;
  }
};

}  // namespace zvk
