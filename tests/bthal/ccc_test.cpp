// Link-layer event reporting against its literal data.

#include <gtest/gtest.h>
#include <termios.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>

#include "bluetooth_ccc.h"
#include "bthal/child_case.h"
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

// What the callbacks of all clients were told, as lines.
class Told {
 public:
  template <typename Timestamp>
  Return<void> Add(const std::string& client, const Timestamp& timestamp, const Address& address,
                   Direction direction, LmpEventId event, uint16_t counter) {
    std::ostringstream line;
    line << client << " " << timestamp.systemTime << " " << timestamp.bluetoothTime << " "
         << addressToString(address) << " " << static_cast<int>(direction) << " "
         << static_cast<int>(event) << " " << counter;
    const std::lock_guard<std::mutex> guard(lock_);
    lines_.push_back(line.str());
    return Void();
  }
  std::vector<std::string> Take() {
    const std::lock_guard<std::mutex> guard(lock_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex lock_;
  std::vector<std::string> lines_;
};

// A client, by the interface that it has. Counts what is linked to its death.
template <typename Interface>
class Client : public Interface {
 public:
  // name: of whom the call of 1.0 tells.
  Client(std::string name, Told& told) : told_(told), name_1_0_(std::move(name)) {}
  Return<void> lmpEventReceived(const V1_0::Timestamp& timestamp, const Address& address,
                                Direction direction, LmpEventId event, uint16_t counter) override {
    return told_.Add(name_1_0_, timestamp, address, direction, event, counter);
  }
  Return<bool> linkToDeath(const sp<hidl_death_recipient>&, uint64_t) override {
    ++links;
    return true;
  }
  Return<bool> unlinkToDeath(const sp<hidl_death_recipient>&) override {
    --links;
    return true;
  }

  std::atomic<int> links{0};

 protected:
  Told& told_;

 private:
  const std::string name_1_0_;
};

using Client1_0 = Client<V1_0::IBluetoothCccCallback>;

class Client1_1 : public Client<V1_1::IBluetoothCccCallback> {
 public:
  Client1_1(const std::string& name, Told& told)
      : Client(name + " by the call of 1.0", told), name_(name) {}
  Return<void> lmpEventReceived_1_1(const V1_1::Timestamp& timestamp, const Address& address,
                                    Direction direction, LmpEventId event,
                                    uint16_t counter) override {
    return told_.Add(name_, timestamp, address, direction, event, counter);
  }

 private:
  const std::string name_;
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
  Told told;
  std::map<std::string, sp<Client1_0>> clients1_0 = {{"none", nullptr}};
  std::map<std::string, sp<Client1_1>> clients1_1 = {{"none", nullptr}};
  for (const char* name : {"a", "b"}) {
    clients1_0[name] = new Client1_0(name, told);
    clients1_1[name] = new Client1_1(name, told);
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
    if (version == "1.0") {
      service->registerForLmpEvents(clients1_0.at(client), ParseAddress(address),
                                    ParseEvents(events));
    } else {
      service->registerForLmpEvents_1_1(clients1_1.at(client), ParseAddress(address),
                                        ParseEvents(events));
    }
  });
  runner.Define("unregister", [&](const std::string& address) {
    service->unregisterLmpEvents(ParseAddress(address));
  });
  runner.Define("told", [&](const std::string& line) {
    EXPECT_EQ(told.Take(), std::vector<std::string>{line});
  });
  runner.Define("quiet",
                [&](const std::string&) { EXPECT_EQ(told.Take(), std::vector<std::string>{}); });
  runner.Define("links", [&](const std::string& arguments) {
    const std::string client = arguments.substr(0, 1);
    EXPECT_EQ(clients1_0.at(client)->links + clients1_1.at(client)->links,
              std::stoi(arguments.substr(1)));
  });
  runner.RunFile("ccc.txt");
}

TEST(Ccc, CommandsAreExact) {
  for (const test::Vector& vector : test::LoadVectors("ccc_commands.txt")) {
    SCOPED_TRACE(vector.name);
    const auto operation = static_cast<Operation>(std::stoi(vector.fields[0]));
    const Address address(test::ParseHex(vector.fields[1]).data());
    EXPECT_EQ(test::ToHex(buildCommand(operation, address, test::ParseHex(vector.fields[2]))),
              test::ToHex(test::ParseHex(vector.fields[3])));
  }
}

}  // namespace
