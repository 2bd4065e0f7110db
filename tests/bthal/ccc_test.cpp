// Link-layer event reporting against its literal data.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <termios.h>

#include <atomic>
#include <map>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "bluetooth_ccc.h"
#include "bthal/child_case.h"
#include "bthal/notes.h"
#include "bthal/sequence_runner.h"
#include "support/pty.h"

namespace {

using namespace hardware::nuvexa::bluetooth::ccc;
using namespace hardware::nuvexa::bluetooth::ccc::V1_1::implementation;
using android::sp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using V1_0::Direction;

// The kernel's file of time-sync readings: one a read, nothing when none is left.
class TimesyncFile : public test::LinkedPty {
 public:
  TimesyncFile() : LinkedPty(test::RootFolder() + "/proc/bluetooth/timesync") {
    termios settings{};
    EXPECT_EQ(tcgetattr(master(), &settings), 0);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    EXPECT_EQ(tcsetattr(master(), TCSANOW, &settings), 0);
  }

  void Provide(const std::vector<std::string>& readings) {
    for (std::string reading : readings) {
      reading.resize(20, ' ');
      WriteToHost(test::Bytes(reading.begin(), reading.end()));
    }
  }
};

// A client; notes each call of its callbacks, and counts what is linked to its death.
class Client : public V1_1::IBluetoothCccCallback {
 public:
  Client(std::string name, test::Notes& told) : name_(std::move(name)), told_(told) {}
  Return<void> lmpEventReceived(const V1_0::Timestamp& timestamp, const Address& address,
                                Direction direction, LmpEventId event, uint16_t counter) override {
    return Note("1.0", timestamp, address, direction, event, counter);
  }
  Return<void> lmpEventReceived_1_1(const V1_1::Timestamp& timestamp, const Address& address,
                                    Direction direction, LmpEventId event,
                                    uint16_t counter) override {
    return Note("1.1", timestamp, address, direction, event, counter);
  }
  Return<bool> linkToDeath(const sp<hidl_death_recipient>&, uint64_t) override {
    return ++links > 0;
  }
  Return<bool> unlinkToDeath(const sp<hidl_death_recipient>&) override { return links-- > 0; }

  std::atomic<int> links{0};

 private:
  // By a call of a version that the client has not registered with, the line names the version.
  template <typename Timestamp>
  Return<void> Note(const std::string& version, const Timestamp& timestamp, const Address& address,
                    Direction direction, LmpEventId event, uint16_t counter) {
    std::ostringstream line;
    line << name_.substr(0, 1)
         << (name_.substr(2) == version ? " " : " by the call of another version ")
         << timestamp.systemTime << " " << timestamp.bluetoothTime << " "
         << addressToString(address) << " " << static_cast<int>(direction) << " "
         << static_cast<int>(event) << " " << counter;
    told_.Add(line.str());
    return Void();
  }

  const std::string name_;  // and the version that it registers with
  test::Notes& told_;
};

Address ParseAddress(std::string text) {
  for (char& c : text) {
    if (c == ':') c = ' ';
  }
  return Address(test::ParseHex(text).data());
}

// "1,0", "247*1" or nothing.
hidl_vec<LmpEventId> ParseEvents(const std::string& text) {
  std::vector<LmpEventId> events;
  const size_t times = text.find('*');
  if (times != std::string::npos) {
    events.assign(std::stoul(text), static_cast<LmpEventId>(std::stoi(text.substr(times + 1))));
  } else {
    for (const std::string& event : test::SplitTrimmed(text, ',')) {
      events.push_back(static_cast<LmpEventId>(std::stoi(event)));
    }
  }
  return events;
}

TEST(Ccc, SequencesAreExact) {
  test::SequenceRunner runner("bthal.ccc");
  const sp<BluetoothCcc> service = new BluetoothCcc;
  std::optional<TimesyncFile> timesync(std::in_place);
  test::Notes told;
  std::map<std::string, sp<Client>> clients;
  for (const char* name : {"a 1.0", "a 1.1", "b 1.0", "b 1.1"}) {
    clients[name] = new Client(name, told);
  }
  runner.DefineSwitch(BluetoothCcc::OnBluetoothEnabled, BluetoothCcc::OnBluetoothDisabled);
  runner.Define("times", [&](const std::string& readings) {
    timesync.reset();
    if (readings != "none") timesync.emplace().Provide(test::SplitTrimmed(readings, ','));
  });
  runner.Define("register", [&](const std::string& arguments) {
    std::istringstream in(arguments);
    std::string client, version, address, events;
    in >> client >> version >> address >> events;
    const sp<Client> object = client == "none" ? nullptr : clients.at(client + " " + version);
    if (version == "1.0") {
      service->registerForLmpEvents(object, ParseAddress(address), ParseEvents(events));
    } else {
      service->registerForLmpEvents_1_1(object, ParseAddress(address), ParseEvents(events));
    }
  });
  runner.Define("unregister", [&](const std::string& address) {
    service->unregisterLmpEvents(ParseAddress(address));
  });
  runner.Define("told", [&](const std::string& line) {
    EXPECT_THAT(told.Take(), ::testing::ElementsAre(line));
  });
  runner.Define("quiet",
                [&](const std::string&) { EXPECT_THAT(told.Take(), ::testing::IsEmpty()); });
  runner.Define("links", [&](const std::string& arguments) {
    const std::string client = arguments.substr(0, 1);
    EXPECT_EQ(clients.at(client + " 1.0")->links + clients.at(client + " 1.1")->links,
              std::stoi(arguments.substr(1)));
  });
  runner.RunFile("ccc.txt");
}

}  // namespace
