// Peers that die, hang, flood or break the rules; who may connect; finding a service.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <hidl/ServiceManagement.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/raw_peer.h"
#include "platform/service_fixture.h"

namespace {

using namespace android::hardware;  // NOLINT: as clients do
using android::sp;
using android::wp;
using ::android::hidl::base::V1_0::IBase;
using test::BodyWriter;
using test::Bytes;
using test::Callback;
using test::ChildProcess;
using test::CountDescriptors;
using test::CountOf;
using test::ITest;
using test::kDeadline;
using test::RawPeer;
using test::WaitFor;
using testing::HasSubstr;
using testing::Not;

constexpr char kLink[] = "test.platform@1.0::ITest:default";
constexpr char kName[] = "test.platform@1.0::ITest/default";

// What messages carry: their type, and the numbers of methods of ITest.
constexpr uint32_t kCall = 1, kReply = 2, kRelease = 3;
constexpr uint32_t kEcho = 1, kPush = 9, kWriteTo = 11, kBlock = 12;
constexpr uint32_t kFind = 1;  // of object 0

struct Death : public hidl_death_recipient {
  void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
    on_death(cookie, who);
    ++deaths;
  }
  std::function<void(uint64_t, const wp<IBase>&)> on_death = [](uint64_t, const wp<IBase>&) {};
  std::atomic<int> deaths{0};
};

BodyWriter Body() { return BodyWriter().Text("test.platform@1.0::ITest"); }

std::vector<uint8_t> EchoBody(size_t size) {
  BodyWriter body = Body();
  body.Buffer(std::vector<uint8_t>(size), body.Buffer(BodyWriter::Vector(size)), 0);
  return body.bytes();
}

class Peers : public test::ServiceTest {
 protected:
  // The service still serves, on this test's old connection.
  void ExpectServing() {
    EXPECT_TRUE(
        service_->echo(Bytes(3), [](const Bytes& back) { EXPECT_EQ(back.size(), 3u); }).isOk());
  }
  bool WaitForDescriptors(int count) {
    return WaitFor([&] { return CountDescriptors(process_->pid()) == count; });
  }
};

// ---- death

TEST_F(Peers, DeathOfService_IsTold_CallsFail_LinkingSaysSo) {
  Serve();
  const sp<Death> death = new Death;
  const sp<Death> unlinked = new Death;
  std::thread::id thread;
  death->on_death = [&](uint64_t cookie, const wp<IBase>& who) {
    EXPECT_EQ(cookie, 5u);
    EXPECT_EQ(who, wp<IBase>(service_));
    thread = std::this_thread::get_id();
  };
  EXPECT_TRUE(service_->linkToDeath(unlinked, 6));
  EXPECT_TRUE(service_->linkToDeath(death, 5));
  EXPECT_TRUE(service_->unlinkToDeath(unlinked));
  EXPECT_FALSE(service_->unlinkToDeath(unlinked)) << "it was not linked any more";

  const int descriptors = CountDescriptors(getpid());
  std::atomic<bool> failed{false};
  std::thread blocked([&] { failed = service_->block().isDeadObject(); });
  EXPECT_TRUE(process_->WaitForOutput("blocked", kDeadline));
  process_->Signal(SIGKILL);
  blocked.join();
  EXPECT_TRUE(failed);
  ASSERT_TRUE(WaitFor([&] { return death->deaths == 1; }));
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_TRUE(service_->ping().isDeadObject());
  EXPECT_FALSE(service_->linkToDeath(death, 5)) << "of an object that is known to be dead";
  service_ = nullptr;
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(getpid()) == descriptors - 1; }))
      << "the connection to a dead service is kept";
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);

  Serve();  // a new service is found
  EXPECT_EQ(death->deaths, 1);
  EXPECT_EQ(unlinked->deaths, 0);
}

TEST_F(Peers, DeathOfClients_IsTold_EvenInTheMiddleOfACall) {
  Serve();
  const int before = CountDescriptors(process_->pid());
  uint32_t deaths = 0;
  for (int round = 0; round < 3; ++round) {
    for (const char* mode : {"attach", "hammer"}) {
      std::unique_ptr<ChildProcess> client = StartClient(mode);
      client->Signal(SIGKILL);
      ASSERT_TRUE(WaitForDeaths(++deaths)) << mode;
    }
  }
  // Killed while the service waits for its answer.
  std::unique_ptr<ChildProcess> client = StartClient("silent");
  std::thread killer([&] { client->Signal(SIGKILL); });
  EXPECT_EQ(CallBack(), 0u);
  killer.join();
  EXPECT_TRUE(WaitForDeaths(++deaths));
  EXPECT_THAT(process_->Output(), Not(HasSubstr(" E ")));
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(process_->pid()) <= before + 2; }));
}

TEST_F(Peers, DeathNotification_DoesNotWaitForABusyPool) {
  Serve();
  std::unique_ptr<ChildProcess> client = StartClient("attach");
  // The service's one thread waits for this event, which waits for the death of the client.
  Attach([&](const Bytes&) {
    client->Signal(SIGKILL);
    EXPECT_TRUE(WaitForDeaths(1));
  });
  EXPECT_EQ(CallBack(), 1u);
}

// ---- clients that do not do their part

TEST_F(Peers, SilentClient_IsLetGoAfterItsTime) {
  for (const char* mode : {"silent", "attach"}) {
    Serve("2", "700");
    const std::unique_ptr<ChildProcess> client = StartClient(mode);
    if (mode == std::string("attach")) Stop(*client);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CallBack(), 0u);
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GE(time, std::chrono::milliseconds(690)) << mode;
    EXPECT_LT(time, std::chrono::seconds(9)) << mode;
    EXPECT_TRUE(WaitForDeaths(1));
    EXPECT_THAT(process_->Output(), HasSubstr("was not answered for 0.7 s"));
    client->Signal(SIGCONT);
    EXPECT_TRUE(service_->ping().isOk());
  }
}

TEST_F(Peers, ClientThatCallsBackForLong_IsNotLetGo) {
  Serve("2", "300");
  Attach([&](const Bytes&) {
    std::thread releaser([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(700));  // longer than it may be silent
      EXPECT_TRUE(service_->release().isOk());
    });
    EXPECT_TRUE(service_->block().isOk()) << "a call to the service has no limit";
    releaser.join();
  });
  EXPECT_EQ(CallBack(), 1u);
}

TEST_F(Peers, ClientThatStopsReading_IsLetGoWhenItsQueueIsFull) {
  Serve();
  std::unique_ptr<ChildProcess> client = StartClient("attach");
  Stop(*client);
  const auto start = std::chrono::steady_clock::now();
  const uint32_t taken = service_->notifyBack(100000);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9)) << "a send waited";
  EXPECT_GE(taken, 256u);
  EXPECT_LT(taken, 2000u);
  EXPECT_TRUE(WaitForDeaths(1));
  EXPECT_EQ(CountOf(" E bthal.rpc", process_->Output()), 1u) << process_->Output();
  ExpectServing();
}

TEST_F(Peers, SlowClient_GetsAllNoticesInOrder) {
  Serve();
  std::atomic<bool> go{false};
  const sp<Callback> callback = Attach([](const Bytes&) {});
  callback->on_notify = [&](uint32_t number) {
    EXPECT_TRUE(WaitFor([&] { return go.load(); }));
    EXPECT_EQ(number, callback->notices + 1);
  };
  EXPECT_EQ(service_->notifyBack(400), 400u);  // more than it takes in before it is slow
  go = true;
  EXPECT_TRUE(WaitFor([&] { return callback->notices == 400; }));
}

TEST_F(Peers, FloodOfCalls_IsNotTakenInWithoutBound) {
  Serve();
  RawPeer blocker(kLink);
  std::vector<uint8_t> body = Body().bytes();
  ASSERT_TRUE(blocker.Send(RawPeer::Message(kCall, blocker.Find(kName), kBlock, body)));
  ASSERT_TRUE(process_->WaitForOutput("blocked", kDeadline));
  // The pool's one thread is busy: the rest waits, in the senders in the end.
  std::vector<std::unique_ptr<RawPeer>> peers;
  std::vector<std::thread> senders;
  const auto flood = [&](int count, size_t size) {
    auto sent = std::make_shared<std::atomic<int>>(0);
    body.resize(body.size() + size);
    for (int i = 0; i < count; ++i) {
      peers.push_back(std::make_unique<RawPeer>(kLink));
      senders.emplace_back([=, peer = peers.back().get()] {
        const std::vector<uint8_t> call = RawPeer::Message(kCall, peer->Find(kName), kBlock, body);
        while (*sent < 100000 && peer->Send(call)) ++*sent;
      });
    }
    int last = 0, unchanged = 0;
    EXPECT_TRUE(WaitFor([&] {
      unchanged = *sent == last ? unchanged + 1 : 0;
      last = *sent;
      return last > 50 && unchanged == 50;
    }));
    return last;
  };
  EXPECT_LT(flood(1, 0), 5000) << "of one peer";
  // 16 MiB of all are taken in, then half a MiB of each; some more fill the sockets.
  EXPECT_LT(flood(20, 70000), 500) << "of all peers";
  EXPECT_NE(ITest::tryGetService("default"), nullptr) << "others have to wait, too";
  process_->Signal(SIGKILL);
  for (std::thread& sender : senders) sender.join();
}

// Clients that come, leave calls behind the one that the pool is busy with, and go.
TEST_F(Peers, CallsOfClientsThatHaveGone_AreDroppedAtOnce) {
  Serve();
#ifdef BTHAL_SANITIZED  // which keeps freed memory
  constexpr size_t kGrowth = size_t{1} << 40;
#else
  constexpr size_t kGrowth = 20 << 20;
#endif
  const auto resident_bytes = [this] {
    const std::string pages = test::ReadFile("/proc/" + std::to_string(process_->pid()) + "/statm");
    return std::stoul(pages.substr(pages.find(' '))) * static_cast<size_t>(getpagesize());
  };
  const auto call = [](uint32_t object, uint32_t code, const std::vector<uint8_t>& body,
                       bool oneway) {
    std::vector<uint8_t> message = RawPeer::Message(kCall, object, code, body);
    message[16] = oneway ? 1 : 0;
    return message;
  };
  const std::vector<uint8_t> push = Body().Number(1).bytes(), echo = EchoBody(70000);
  Attach([&](const Bytes&) {
    const int descriptors = CountDescriptors(process_->pid());
    const size_t before = resident_bytes();
    for (int round = 0; round < 20; ++round) {
      RawPeer client(kLink);
      const uint32_t object = client.Find(kName);
      ASSERT_NE(object, 0u);
      EXPECT_TRUE(client.Send(call(object, kPush, push, round % 2 == 0)));
      for (int i = 0; i < 40; ++i) client.Send(call(object, kEcho, echo, i % 2 == 0));
      if (round < 10) client.Send(RawPeer::Message(kRelease, object, 1, {}));  // lets go of it
    }
    {
      RawPeer client(kLink);  // so many that some are not even read
      const uint32_t object = client.Find(kName);
      for (int i = 0; i < 1080; ++i) {
        EXPECT_TRUE(client.Send(call(object, kPush, push, i % 2 == 0)));
      }
    }
    EXPECT_TRUE(WaitFor([&] { return CountDescriptors(process_->pid()) == descriptors; },
                        std::chrono::seconds(8)))
        << "connections of clients that have gone are kept";
    EXPECT_LT(resident_bytes(), before + kGrowth);
  });
  EXPECT_EQ(CallBack(), 1u);
  const auto none = [](uint32_t count, uint32_t, uint32_t) { EXPECT_EQ(count, 0u); };
  EXPECT_TRUE(service_->pushed(none).isOk());
}

// ---- messages that break the rules

TEST_F(Peers, BrokenMessages_CostTheirConnectionAndOneLine) {
  Serve();
  constexpr size_t kLongest = 192 * 1024 - 56;  // behind the header
  const std::vector<uint8_t> find = BodyWriter().Text(kName).bytes();
  const auto found_by = [&](size_t at, uint8_t value, size_t more = 0) {
    std::vector<uint8_t> message = RawPeer::Message(kCall, 0, kFind, find);
    message[at] = value;
    message.resize(message.size() + more);
    return message;
  };
  const auto padded_to = [&](size_t size) {
    std::vector<uint8_t> body = find;
    body.resize(size);
    return RawPeer::Message(kCall, 0, kFind, body);
  };
  std::vector<uint8_t> unknown_reference = RawPeer::Message(1, 0, 1, std::vector<uint8_t>(8));
  unknown_reference[40] = 1;  // the eight bytes are a reference, not the body
  unknown_reference[48] = 0;
  unknown_reference[56] = 2;  // to an object of the service's
  unknown_reference[60] = 77;
  const struct {
    const char* what;
    std::vector<uint8_t> message;
    bool good = false;
  } rows[] = {
      {"nothing wrong", found_by(0, 0x01), true},
      {"as long as may be", padded_to(kLongest), true},
      {"one byte longer", padded_to(kLongest + 1)},
      {"one byte", {1}},
      {"half a header", std::vector<uint8_t>(28)},
      {"another version", found_by(0, 0x02)},
      {"more bytes than it says", found_by(0, 0x01, 4)},
      {"one byte less than it says", found_by(48, static_cast<uint8_t>(find.size() + 1))},
      {"too many references", found_by(40, 0xff)},
      {"a descriptor that is not there", found_by(44, 1)},
      {"an unknown type", RawPeer::Message(9, 0, 1, {})},
      {"a call to an unknown object", RawPeer::Message(kCall, 77, 1, {})},
      {"a reference to an unknown object", unknown_reference},
      {"a reply to no call", RawPeer::Message(kReply, 0, 0, {})},
      {"a release of nothing", RawPeer::Message(kRelease, 1, 1, {})},
      {"a look-up without a name", RawPeer::Message(kCall, 0, kFind, {})},
  };
  size_t lines = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    RawPeer peer(kLink);
    ASSERT_TRUE(peer.Send(row.message));
    EXPECT_EQ(peer.Receive().empty(), !row.good);
    lines += row.good ? 0 : 1;
    EXPECT_TRUE(row.good || peer.WaitForEnd());
    EXPECT_TRUE(WaitFor([&] {
      return CountOf(" E bthal.rpc: connection to", process_->Output()) == lines;
    })) << process_->Output();
  }
  ExpectServing();
}

TEST_F(Peers, DescriptorsNobodyAskedFor_AreClosed) {
  Serve();
  RawPeer warm_up(kLink);
  EXPECT_NE(warm_up.Find(kName), 0u);
  const int before = CountDescriptors(process_->pid());
  for (int i = 0; i < 20; ++i) {
    RawPeer peer(kLink);
    std::vector<uint8_t> message =
        RawPeer::Message(kCall, 0, kFind, BodyWriter().Text(kName).bytes());
    const bool counted = i % 2 == 0;
    if (counted) message[44] = 1;
    EXPECT_TRUE(peer.Send(message, STDERR_FILENO));
    EXPECT_TRUE(counted || peer.WaitForEnd());
  }
  EXPECT_TRUE(WaitForDescriptors(before));
}

// Well-formed calls, then bytes of them changed.
TEST_F(Peers, MutatedCalls_HurtNobodyElse) {
  Serve("2");
  const uint32_t seed = std::random_device{}();
  printf("seed %u\n", seed);
  std::mt19937 random(seed);
  const auto pick = [&](size_t below) { return static_cast<size_t>(random() % below); };
  // writeTo(null, "abc")
  BodyWriter text = Body().Number(0).Number(0).Number(0).Number(0xffffffff);
  text.Buffer({'a', 'b', 'c', 0}, text.Buffer(BodyWriter::Vector(3)), 0);
  const struct {
    uint32_t code;
    std::vector<uint8_t> body;
  } kinds[] = {{kEcho, EchoBody(5)}, {kWriteTo, text.bytes()}};

  auto peer = std::make_unique<RawPeer>(kLink);
  uint32_t object = peer->Find(kName);
  for (const auto& kind : kinds) {
    ASSERT_TRUE(peer->Send(RawPeer::Message(kCall, object, kind.code, kind.body)));
    const std::vector<uint8_t> reply = peer->Receive();
    ASSERT_GE(reply.size(), 56u);
    EXPECT_EQ(reply[20], 0) << "the call of code " << kind.code << " is not well-formed";
  }

  const int rounds = test::Count("mutated calls", 10000);
  int ended = 0;
  for (int i = 0; i < rounds; ++i) {
    const auto& kind = kinds[pick(2)];
    std::vector<uint8_t> body = kind.body;
    for (size_t changes = 1 + pick(4); changes > 0; --changes) {
      const size_t at = 28 + pick(body.size() - 28);  // behind the interface's name, mostly
      const uint32_t values[] = {0, 1, 16, 0xffffffff, 0x7fffffff, 0x80000000};
      switch (pick(4)) {
        case 0:
          body[at] = static_cast<uint8_t>(random());
          break;
        case 1:
          memcpy(body.data() + at / 4 * 4, &values[pick(6)], 4);
          break;
        case 2:
          if (pick(4) == 0) body.resize(std::max<size_t>(at, 60));
          break;
        case 3:
          body.resize(body.size() + pick(16), static_cast<uint8_t>(random()));
          break;
      }
    }
    if (!peer->Send(RawPeer::Message(kCall, object, kind.code, body)) || peer->Receive().empty()) {
      ++ended;
      peer = std::make_unique<RawPeer>(kLink);
      object = peer->Find(kName);
      ASSERT_NE(object, 0u) << "after " << i << " calls\n" << process_->Output();
    }
  }
  EXPECT_GT(ended, rounds / 100) << "hardly any of it was seen to be malformed";
  EXPECT_LT(ended, rounds) << "nothing of it got through";
  ExpectServing();
}

// ---- access

TEST_F(Peers, ThirtyThirdPeer_IsRefusedUntilOneLeaves) {
  Serve();  // this process is the first
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < 31; ++i) {
    peers.push_back(std::make_unique<RawPeer>(kLink));
    ASSERT_NE(peers.back()->Find(kName), 0u) << i;
  }
  // Each is a process that looks the service up, and is told why it cannot have it.
  std::string output;
  for (int i = 0; i < 5; ++i) {
    test::Run({test::TestProgram("platform_test_client"), "find"}, &output);
    EXPECT_EQ(output, "error " + std::to_string(EUSERS) + "\n");
  }
  EXPECT_EQ(CountOf("there are 32 peers already", process_->Output()), 1u);
  ExpectServing();
  peers.pop_back();
  EXPECT_TRUE(WaitFor([] { return RawPeer(kLink).Find(kName) != 0; }));
}

TEST_F(Peers, FolderAndSocket_AreForUserAndGroupOnly) {
  Serve();
  const std::string folder = test::RootFolder() + "/run/bthal/";
  struct stat status;
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0750u);
  ASSERT_EQ(stat((folder + kLink).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660u);
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";

  // Where the mode would let them in, the credentials still count.
  ASSERT_EQ(chmod(test::RootFolder().c_str(), 0755), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  ASSERT_EQ(chmod((folder + kLink).c_str(), 0666), 0);
  const auto find_as = [&](uid_t user, gid_t group) {
    const pid_t child = fork();
    if (child == 0) {
      if (setresgid(group, group, group) != 0 || setgroups(0, nullptr) != 0 ||
          setresuid(user, user, user) != 0) {
        _exit(3);
      }
      RawPeer peer(kLink);
      _exit(!peer.connected() ? 2 : peer.Find(kName) != 0 ? 0 : 1);
    }
    int child_status = 0;
    waitpid(child, &child_status, 0);
    return WEXITSTATUS(child_status);
  };
  EXPECT_EQ(find_as(1234, 1234), 1);
  EXPECT_THAT(process_->Output(), HasSubstr("of user 1234 may not connect"));
  EXPECT_EQ(find_as(1234, getegid()), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0750), 0);
  ExpectServing();
}

// ---- finding

TEST_F(Peers, LookUp_WaitsForTheServiceToCome) {
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);
  EXPECT_EQ(details::lastLookUpError(), ENOENT);
  sp<ITest> found;
  std::thread waiter([&] { found = ITest::getService("default"); });
  process_ = StartService();
  waiter.join();
  ASSERT_NE(found, nullptr);
  EXPECT_TRUE(found->ping().isOk());
}

TEST_F(Peers, LookUp_EndsAtItsDeadlineAndIsNotHeldByAStoppedService) {
  Serve();
  setenv("BTHAL_LOOKUP_TIMEOUT_MS", "300", 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ITest::getService("another"), nullptr);
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GE(time, std::chrono::milliseconds(300));
  EXPECT_LT(time, std::chrono::seconds(4));
  Stop(*process_);
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);
  EXPECT_EQ(details::lastLookUpError(), ETIMEDOUT);
  unsetenv("BTHAL_LOOKUP_TIMEOUT_MS");
  process_->Signal(SIGCONT);
  EXPECT_NE(ITest::tryGetService("default"), nullptr) << "the late answer hurt the connection";
  ExpectServing();
}

TEST_F(Peers, SocketLeftBehind_IsRemovedAndItsNameTakenOver) {
  Serve();
  const std::string folder = test::RootFolder() + "/run/bthal/";
  const std::string old_socket = std::filesystem::read_symlink(folder + kLink);
  process_->Signal(SIGKILL);
  process_->Wait(kDeadline);
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);
  ASSERT_TRUE(std::filesystem::exists(folder + old_socket));
  Serve();
  EXPECT_FALSE(std::filesystem::exists(folder + old_socket));
  EXPECT_NE(std::filesystem::read_symlink(folder + kLink), old_socket);
}

TEST_F(Peers, LongPath_IsServedAndFound) {
  const test::TempDir folder;
  const std::string root = folder / (std::string(120, 'a') + "/" + std::string(120, 'b'));
  std::filesystem::create_directories(root);
  const std::map<std::string, std::string> environment = {{"BTHAL_ROOT", root}};
  ChildProcess service({test::TestProgram("platform_test_service")}, environment);
  ASSERT_TRUE(service.WaitForOutput("serving", kDeadline)) << service.Output();
  ChildProcess client({test::TestProgram("platform_test_client"), "attach"}, environment);
  EXPECT_TRUE(client.WaitForOutput("attached 1", kDeadline)) << client.Output();
}

}  // namespace
