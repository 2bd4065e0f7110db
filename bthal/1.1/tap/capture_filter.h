#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace android::hardware::bluetooth::tap {

// Which packets a capture shows. Each restriction is one of a kind of packets and leaves the others
// alone. Plain data.
class CaptureFilter {
 public:
  // Takes one restriction:
  //   types=cmd,acl,sco,evt,iso   only these types
  //   opcodes=0x0c03,…            of commands and their answers only these
  //   events=0x3e,…               of events only these; answers are a matter of opcodes, if given
  //   no-events=0x13,…            all events but these
  //   handles=0x0040,…            of data only that of these connections
  //   no-advertising              without advertising reports
  //   no-data                     data packets with zeros in the place of their payload
  // Returns false for a word that is none of them.
  bool Add(std::string_view word);

  bool Passes(uint8_t type, const uint8_t* data, size_t size) const;
  bool hides_data() const { return hides_data_; }

 private:
  bool PassesEvent(const uint8_t* data, size_t size) const;

  std::set<unsigned> types_, opcodes_, events_, no_events_, handles_;
  bool no_advertising_ = false;
  bool hides_data_ = false;
};

// Puts zeros in the place of a data packet's payload. Its length stays.
void HidePayload(uint8_t type, std::vector<uint8_t>* packet);

}  // namespace android::hardware::bluetooth::tap
