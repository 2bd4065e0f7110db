// Peers that die, hang, flood or break the rules; who may connect; finding a service.
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
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/raw_peer.h"
#include "platform/service_fixture.h"
#include "rpc/connection.h"

namespace {

using namespace android::hardware;  // NOLINT: as clients do
using android::sp;
using android::wp;
using ::android::hidl::base::V1_0::IBase;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Callback;
using test::CountDescriptors;
using test::CountOf;
using test::ITest;
using test::kDeadline;
using test::Payload;
using test::RawPeer;
using test::WaitFor;
using testing::HasSubstr;
using testing::Not;

// The link step puts it in the way of the system's: a service makes its folder just before the
// watch of one that waits for it.
std::atomic<bool> make_folder{false};
extern "C" int __real_inotify_add_watch(int fd, const char* path, uint32_t mask);
extern "C" int __wrap_inotify_add_watch(int fd, const char* path, uint32_t mask) {
  if (make_folder.exchange(false)) {
    std::filesystem::create_directories(test::RootFolder() + "/run/bthal");
  }
  return __real_inotify_add_watch(fd, path, mask);
}

struct Death : public hidl_death_recipient {
  void serviceDied(uint64_t with_cookie, const wp<IBase>& who) override {
    cookie = with_cookie;
    dead = who;
    thread = std::this_thread::get_id();
    ++deaths;
  }
  uint64_t cookie = 0;
  wp<IBase> dead;
  std::thread::id thread;
  std::atomic<int> deaths{0};
};

class Peers : public test::ServiceTest {
 protected:
  // The service still serves, on this test's old connection.
  void ExpectServing() {
    EXPECT_TRUE(
        service_->echo(Payload(3), [](const Payload& back) { EXPECT_EQ(back.size(), 3u); }).isOk());
  }
  // With no more descriptors than there were before, the service keeps no connection either.
  bool WaitForDescriptors(int before) {
    return WaitFor([&] { return CountDescriptors(process_->pid()) <= before; });
  }
};

// ---- death

TEST_F(Peers, DeathOfService_IsTold_CallsFail_LinkingSaysSo_TheNextOneTakesItsName) {
  Serve();
  const std::filesystem::path folder = test::RootFolder() + "/run/bthal";
  const std::filesystem::path old_socket = folder / read_symlink(folder / RawPeer::kLink);
  const sp<Death> death = new Death;
  const sp<Death> unlinked = new Death;
  EXPECT_TRUE(service_->linkToDeath(unlinked, 6));
  EXPECT_TRUE(service_->linkToDeath(death, 5));
  EXPECT_TRUE(service_->unlinkToDeath(unlinked));
  EXPECT_FALSE(service_->unlinkToDeath(unlinked)) << "it was not linked any more";

  const int descriptors = CountDescriptors(getpid());
  {
    RawPeer silent;
    EXPECT_TRUE(silent.Attach());
    std::thread killer([&] {
      EXPECT_FALSE(silent.Receive().empty());  // the call that the service waits for
      process_->Signal(SIGKILL);
    });
    EXPECT_TRUE(service_->callBack(1, Payload(1)).isDeadObject());
    killer.join();
  }
  ASSERT_TRUE(WaitFor([&] { return death->deaths == 1; }));
  EXPECT_EQ(death->cookie, 5u);
  EXPECT_EQ(death->dead, wp<IBase>(service_));
  EXPECT_NE(death->thread, std::this_thread::get_id());
  EXPECT_TRUE(service_->ping().isDeadObject());
  EXPECT_FALSE(service_->linkToDeath(death, 5)) << "of an object that is known to be dead";
  service_ = nullptr;
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(getpid()) == descriptors - 1; }))
      << "the connection to a dead service is kept";
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);

  ASSERT_TRUE(std::filesystem::exists(old_socket));
  Serve();
  EXPECT_FALSE(std::filesystem::exists(old_socket));
  EXPECT_EQ(death->deaths, 1);
  EXPECT_EQ(unlinked->deaths, 0);
}

TEST_F(Peers, DeathOfClients_IsTold_InTheMiddleOfACallAndBesideABusyPool) {
  Serve();
  const int before = CountDescriptors(process_->pid());
  std::optional<RawPeer> client;
  uint32_t deaths = 0;
  for (int calls = 0; calls <= 60; calls += 20) {
    EXPECT_TRUE(client.emplace().Attach());
    for (int i = 0; i < calls; ++i) EXPECT_TRUE(client->Send("echo"));
    client.reset();
    ASSERT_TRUE(WaitForDeaths(++deaths)) << "with calls of its own under way: " << calls;
  }
  EXPECT_TRUE(client.emplace().Attach());
  std::thread killer([&] {
    EXPECT_FALSE(client->Receive().empty());  // the service waits for its answer
    client.reset();
  });
  EXPECT_EQ(CallBack(), 0u);
  killer.join();
  EXPECT_TRUE(WaitForDeaths(++deaths));
  // The service's one thread waits for an event, which waits for the death of the client.
  EXPECT_TRUE(client.emplace().Attach());
  Attach([&](const Payload&) {
    client.reset();
    EXPECT_TRUE(WaitForDeaths(++deaths));
  });
  EXPECT_EQ(CallBack(), 1u);
  EXPECT_THAT(process_->Output(), Not(HasSubstr(" E ")));
  EXPECT_TRUE(WaitForDescriptors(before + 2));  // threads open one for their first call
}

// ---- clients that do not do their part

TEST_F(Peers, SilentClient_IsLetGoAfterItsTimeUnlessItCallsBack) {
  EXPECT_EQ(bthal::rpc::client_answer_time, std::chrono::seconds(10)) << "which this shortens:";
  Serve("2", "500");
  std::optional<RawPeer> client;
  EXPECT_TRUE(client.emplace().Attach());
  const auto start = steady_clock::now();
  std::future<uint32_t> called_back = std::async(std::launch::async, [&] { return CallBack(); });
  if (called_back.wait_for(std::chrono::seconds(9)) != std::future_status::ready) {
    ADD_FAILURE() << "the service waits without a limit";
    client.reset();
  }
  EXPECT_EQ(called_back.get(), 0u);
  EXPECT_GE(steady_clock::now() - start, milliseconds(490));
  EXPECT_TRUE(WaitForDeaths(1));
  EXPECT_THAT(process_->Output(), HasSubstr("was not answered for 0.5 s"));

  Attach([&](const Payload&) {
    const auto end = steady_clock::now() + milliseconds(1000);  // longer than it may be silent
    while (steady_clock::now() < end) EXPECT_TRUE(service_->ping().isOk());
  });
  EXPECT_EQ(CallBack(), 1u);
}

// The peer sees what was sent ahead, and answers by hand, or not at all.
TEST_F(Peers, ClientOfCallsThatRunAhead_IsLetGoWhenItsWindowStandsStill) {
  Serve("2", "500");
  const auto stream = [&] {
    return std::async(std::launch::async, [&] { return StreamBack(1000); });
  };
  {
    RawPeer silent;
    EXPECT_TRUE(silent.Attach());
    const auto start = steady_clock::now();
    std::future<uint32_t> sent = stream();
    EXPECT_EQ(sent.get(), bthal::rpc::kMaxAheadCalls);
    EXPECT_GE(steady_clock::now() - start, milliseconds(490));
    EXPECT_TRUE(WaitForDeaths(1));
    EXPECT_EQ(CountOf("was not answered for 0.5 s", process_->Output()), 1u);
  }
  {
    std::optional<RawPeer> dying;
    EXPECT_TRUE(dying.emplace().Attach());
    std::future<uint32_t> sent = stream();
    for (int i = 0; i < 10; ++i) EXPECT_FALSE(dying->Receive().empty());
    dying.reset();
    EXPECT_LE(sent.get(), bthal::rpc::kMaxAheadCalls);
    EXPECT_TRUE(WaitForDeaths(2));
  }
  RawPeer failing;
  EXPECT_TRUE(failing.Attach());
  std::future<uint32_t> sent = stream();
  for (int i = 0; i < 32; ++i) EXPECT_FALSE(failing.Receive().empty());  // those it tells of
  // Two threads of a client may tell in the other order: what is known already does no harm.
  for (const char* name : {"progress", "progress", "failure"}) EXPECT_TRUE(failing.Send(name));
  EXPECT_LT(sent.get(), 1000u);
  EXPECT_THAT(process_->Output(), HasSubstr("E bthal.rpc: stream failed in process "));
  ExpectServing();
}

TEST_F(Peers, ClientThatDoesNotRead_GetsAllInOrderOnceItReadsAndIsLetGoWhenTooMuchWaits) {
  Serve();
  uint32_t taken = 0;
  {
    RawPeer stuck;
    EXPECT_TRUE(stuck.Attach());
    taken = service_->notifyBack(100000);
    EXPECT_TRUE(WaitForDeaths(1));
  }
  ASSERT_GE(taken, 256u);
  EXPECT_LT(taken, 4000u);
  EXPECT_EQ(CountOf(" E bthal.rpc", process_->Output()), 1u) << process_->Output();

  RawPeer slow;
  EXPECT_TRUE(slow.Attach());
  const uint32_t count = taken - 128;  // what the socket holds, and half of what may wait behind it
  EXPECT_EQ(service_->notifyBack(count), count);
  const auto receive = [&slow] {
    const std::vector<uint8_t> notice = slow.Receive();
    uint32_t number = 0;  // comes last
    if (notice.size() > RawPeer::kHeaderBytes) memcpy(&number, &*notice.end() - 4, 4);
    return number;
  };
  for (uint32_t number = 1; number <= count; ++number) {
    ASSERT_EQ(receive(), number);
    // The socket has room again, and others wait.
    if (number == 10) {
      EXPECT_EQ(service_->notifyBack(1), 1u);
    }
  }
  EXPECT_EQ(receive(), 1u);
  ExpectServing();
}

// Calls that wait for the pool's one thread: how many, of what size, with how many descriptors.
TEST_F(Peers, CallsBehindABusyOne_AreBoundedAndGoWithTheirClients) {
  Serve("1", "60000");
  const auto find = [](RawPeer& peer) { EXPECT_TRUE(peer.Find()) << "look-ups have to wait, too"; };
  Attach([&](const Payload&) {
    const int before = CountDescriptors(process_->pid());
    {
      RawPeer peer;
      find(peer);
      EXPECT_LT(peer.Flood("echo"), 5000);
    }
    {
      // 16 MiB of all are taken in, then half a MiB of each; some more fill the sockets.
      RawPeer peers[12];
      int sent = 0;
      for (RawPeer& peer : peers) {
        find(peer);
        sent += peer.Flood("echo 70000");
      }
      EXPECT_LT(sent, 450);
    }
    EXPECT_TRUE(WaitForDescriptors(before)) << "connections of clients that have gone are kept";
    {
      RawPeer peer;
      find(peer);
      for (int i = 0; i < 100; ++i) EXPECT_TRUE(peer.Send("push a descriptor", STDERR_FILENO));
      EXPECT_FALSE(WaitFor([&] { return CountDescriptors(process_->pid()) > before + 40; },
                           milliseconds(300)));
    }
    for (int round = 0; round < 20; ++round) {
      RawPeer peer;
      find(peer);
      for (const char* name : {"push", "push and wait", "echo 70000"}) peer.Send(name);
      if (round < 10) peer.Send("release");  // lets go of the object before its calls have run
    }
    EXPECT_TRUE(WaitForDescriptors(before));
  });
  EXPECT_EQ(CallBack(), 1u);
  const auto none = [](uint32_t count, uint32_t, uint32_t) { EXPECT_EQ(count, 0u); };
  EXPECT_TRUE(service_->pushed(none).isOk());
}

// ---- messages that break the rules

TEST_F(Peers, BrokenMessages_CostTheirConnectionAndOneLine) {
  Serve();
  ExpectServing();  // a thread opens a descriptor for its first call
  const int before = CountDescriptors(process_->pid());
  size_t lines = 0;
  for (const test::Vector& v : test::LoadVectors("ipc_mistakes.txt")) {
    SCOPED_TRACE(v.name);
    const bool good = v.fields[0] == "answered";
    RawPeer peer;
    EXPECT_TRUE(v.fields[0] != "found, ended" || peer.Find());
    ASSERT_TRUE(peer.Send(test::ParseHex(v.fields[2]), v.fields[1] == "1" ? STDERR_FILENO : -1));
    EXPECT_EQ(peer.Receive().empty(), !good);
    lines += good ? 0 : 1;
    EXPECT_TRUE(WaitFor([&] {
      return CountOf(" E bthal.rpc: connection to", process_->Output()) == lines;
    })) << process_->Output();
  }
  EXPECT_TRUE(WaitForDescriptors(before)) << "descriptors that nobody asked for are kept";
  ExpectServing();
}

// ---- access

TEST_F(Peers, ThirtyThirdPeer_IsRefusedUntilOneLeaves) {
  Serve();  // this process is the first
  std::vector<RawPeer> peers(31);
  for (RawPeer& peer : peers) ASSERT_TRUE(peer.Find());
  // Each is a process that looks the service up, and is told why it cannot have it.
  std::string output;
  for (int i = 0; i < 3; ++i) {
    test::Run({test::TestProgram("platform_test_service"), "find"}, &output);
    EXPECT_EQ(output, "error " + std::to_string(EUSERS) + "\n");
  }
  EXPECT_EQ(CountOf("there are 32 peers already", process_->Output()), 1u);
  ExpectServing();
  peers.pop_back();
  EXPECT_TRUE(WaitFor([] { return RawPeer().Find(); }));
}

TEST_F(Peers, FolderAndSocket_AreForUserAndGroupOnly) {
  Serve();
  const std::string folder = test::RootFolder() + "/run/bthal/", link = folder + RawPeer::kLink;
  struct stat status;
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0750u);
  ASSERT_EQ(stat(link.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660u);
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";

  // Where the mode would let them in, the credentials still count.
  ASSERT_EQ(chmod(test::RootFolder().c_str(), 0755), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  ASSERT_EQ(chmod(link.c_str(), 0666), 0);
  const auto find_as = [&](uid_t user, gid_t group) {
    const pid_t child = fork();
    if (child == 0) {
      if (setresgid(group, group, group) != 0 || setgroups(0, nullptr) != 0 ||
          setresuid(user, user, user) != 0) {
        _exit(3);
      }
      RawPeer peer;
      _exit(!peer.connected() ? 2 : peer.Find() ? 0 : 1);
    }
    int child_status = 0;
    waitpid(child, &child_status, 0);
    return WEXITSTATUS(child_status);
  };
  EXPECT_EQ(find_as(1234, 1234), 1);
  EXPECT_THAT(process_->Output(), HasSubstr("of user 1234 may not connect"));
  EXPECT_EQ(find_as(1234, getegid()), 0);
}

// ---- finding

TEST_F(Peers, LookUp_WaitsForTheServiceToCome) {
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);
  EXPECT_EQ(details::lastLookUpError(), ENOENT);
  setenv("BTHAL_LOOKUP_TIMEOUT_MS", "60000", 1);
  make_folder = true;
  const auto start = steady_clock::now();
  std::thread waiter([] { EXPECT_NE(ITest::getService("default"), nullptr); });
  EXPECT_TRUE(WaitFor([] { return !make_folder; }));
  Serve();
  waiter.join();
  EXPECT_LT(steady_clock::now() - start, kDeadline) << "it slept through the service's coming";
}

TEST_F(Peers, LookUp_EndsAtItsDeadlineAndIsNotHeldByAStoppedService) {
  Serve();
  setenv("BTHAL_LOOKUP_TIMEOUT_MS", "300", 1);
  const auto start = steady_clock::now();
  EXPECT_EQ(ITest::getService("another"), nullptr);
  const auto time = steady_clock::now() - start;
  EXPECT_GE(time, milliseconds(300));
  EXPECT_LT(time, std::chrono::seconds(4));
  process_->Signal(SIGSTOP);
  waitpid(process_->pid(), nullptr, WUNTRACED);
  EXPECT_EQ(ITest::tryGetService("default"), nullptr);
  EXPECT_EQ(details::lastLookUpError(), ETIMEDOUT);
  unsetenv("BTHAL_LOOKUP_TIMEOUT_MS");
  process_->Signal(SIGCONT);
  EXPECT_NE(ITest::tryGetService("default"), nullptr) << "the late answer hurt the connection";
  ExpectServing();
}

}  // namespace
