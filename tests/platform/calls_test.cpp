// Calls between two processes that behave.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/service_fixture.h"

namespace {

using namespace android::hardware;  // NOLINT: as clients do
using android::sp;
using android::wp;
using ::android::hidl::base::V1_0::IBase;
using test::Bytes;
using test::Callback;
using test::ITest;
using test::kDeadline;
using test::WaitFor;
using test::platform::V1_0::ICallback;

class Calls : public test::ServiceTest {};

Bytes Pattern(size_t size, uint8_t first = 0) {
  Bytes bytes(size);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

// A pipe whose writing end stands in a handle with two numbers.
struct Pipe {
  Pipe() {
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    native_handle_t* native = native_handle_create(1, 2);
    native->data[0] = ends[1];
    native->data[1] = 5;
    native->data[2] = -6;
    handle.setTo(native, true);
  }
  ~Pipe() { close(ends[0]); }
  std::string Read() const {
    char text[256];
    const ssize_t size = read(ends[0], text, sizeof text);
    return size < 0 ? "" : std::string(text, static_cast<size_t>(size));
  }
  int ends[2];
  hidl_handle handle;
};

TEST_F(Calls, Bytes_OfEverySize_ComeBack) {
  Serve();
  for (const size_t size : {0, 1, 3, 4, 7, 255, 256, 257, 1021, 65536, 190000}) {
    const Bytes sent = Pattern(size);
    Bytes received;
    ASSERT_TRUE(service_->echo(sent, [&](const Bytes& data) { received = data; }).isOk()) << size;
    EXPECT_EQ(received, sent) << size;
  }
  EXPECT_FALSE(service_->echo(Bytes(200 * 1024), [](const Bytes&) {}).isOk()) << "too large";
  EXPECT_TRUE(service_->ping().isOk()) << "a message too large to send cost the connection";
}

TEST_F(Calls, Descriptors_PassBothWaysAndNoneIsLeft) {
  Serve();
  EXPECT_TRUE(service_->ping().isOk());  // threads open a descriptor for their first call
  const int before = test::CountDescriptors(process_->pid());
  const int own_before = test::CountDescriptors(getpid());
  for (int i = 0; i < 20; ++i) {
    const Pipe pipe;
    const auto write_back = [](const hidl_handle& copy) {
      ASSERT_EQ(copy->numFds, 1);
      EXPECT_EQ(copy->data[1], 77);
      EXPECT_EQ(dprintf(copy->data[0], " and back"), 9);
    };
    ASSERT_TRUE(service_->writeTo(pipe.handle, "from the service", write_back).isOk());
    EXPECT_EQ(pipe.Read(), "from the service and back");
  }
  const auto expect_null = [](const hidl_handle& h) { EXPECT_EQ(h.getNativeHandle(), nullptr); };
  EXPECT_TRUE(service_->writeTo(nullptr, "", expect_null).isOk());
  EXPECT_EQ(test::CountDescriptors(getpid()), own_before);
  EXPECT_TRUE(
      WaitFor([&] { return test::CountDescriptors(process_->pid()) == before; }, kDeadline));

  NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
  native_handle_t* closed = native_handle_init(storage, 1, 0);
  closed->data[0] = 100000;
  EXPECT_FALSE(service_->writeTo(closed, "", [](const hidl_handle&) {}).isOk());
  EXPECT_TRUE(service_->ping().isOk()) << "a closed descriptor fails more than its call";
}

TEST_F(Calls, Callbacks_ArriveInTheCallOnTheCallersThreadElseOnThePool) {
  Serve();
  std::atomic<bool> in_a_call{true};
  const std::thread::id caller = std::this_thread::get_id();
  const sp<Callback> callback = Attach([&](const Bytes& data) {
    EXPECT_EQ(std::this_thread::get_id() == caller, in_a_call);
    EXPECT_EQ(data.size(), 10u);
    // One deeper: the service's only thread waits for this event.
    EXPECT_TRUE(service_->echo(data, [&](const Bytes& back) { EXPECT_EQ(back, data); }).isOk());
  });
  EXPECT_EQ(CallBack(100, Pattern(10)), 100u);
  EXPECT_EQ(callback->events, 100u);
  in_a_call = false;
  EXPECT_TRUE(service_->callBackLater(Pattern(10)).isOk());
  EXPECT_TRUE(WaitFor([&] { return callback->events == 101; }, kDeadline));
}

TEST_F(Calls, Objects_KeepTheirIdentityAndGoWithTheLastReference) {
  Serve();
  sp<Callback> mine = Attach([](const Bytes&) {});
  sp<ICallback> back = service_->attached();
  EXPECT_EQ(back, mine) << "the own object came back as another one";
  EXPECT_TRUE(service_->isAttached(mine));
  EXPECT_FALSE(service_->isAttached(new Callback));
  EXPECT_FALSE(service_->isAttached(nullptr));

  EXPECT_TRUE(interfacesEqual(service_, ITest::tryGetService("default")));
  EXPECT_FALSE(interfacesEqual(service_, sp<ICallback>(mine)));
  const sp<IBase> base = service_;
  EXPECT_NE(sp<ITest>(ITest::castFrom(base)), nullptr);
  EXPECT_EQ(sp<ICallback>(ICallback::castFrom(base)), nullptr);

  const wp<Callback> watched = mine;
  mine.clear();
  back.clear();
  EXPECT_NE(watched.promote(), nullptr) << "the service still holds it";
  Attach([](const Bytes&) {});
  EXPECT_TRUE(WaitFor([&] { return watched.promote() == nullptr; }, kDeadline));
}

TEST_F(Calls, ManyThreadsBothWays_GetTheirOwnRepliesAndDoNotBlockEachOther) {
  Serve("3");
  const sp<Callback> callback = Attach([&](const Bytes&) { EXPECT_TRUE(service_->ping().isOk()); });
  const auto rounds = static_cast<uint32_t>(test::Count("rounds of calls both ways", 3000));
  std::atomic<uint32_t> right{0};
  std::vector<std::thread> threads;
  for (uint8_t number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const Bytes data = Pattern(20, number);
      for (uint32_t i = 0; i < rounds; ++i) {
        (void)service_->echo(data, [&](const Bytes& back) { right += back == data; }).isOk();
        if (number == 0) {
          EXPECT_TRUE(service_->callBackLater(Bytes(4)).isOk());
        }
      }
    });
  }
  for (uint32_t i = 0; i < rounds; ++i) EXPECT_EQ(CallBack(1, Bytes(100)), 1u);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 4 * rounds);
  EXPECT_TRUE(WaitFor([&] { return callback->events == 2 * rounds; }, kDeadline));
}

TEST_F(Calls, OnewayCalls_RunInOrderAndOneAtATime) {
  Serve("4");
  uint32_t number = 0;
  uint32_t count = 0;
  for (int round = 0; round < 10; ++round) {
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(service_->push(++number).isOk());
    EXPECT_TRUE(service_->ping().isOk());
  }
  const auto check = [&](uint32_t pushed, uint32_t disordered, uint32_t overlapping) {
    count = pushed;
    EXPECT_EQ(disordered, 0u);
    EXPECT_EQ(overlapping, 0u);
  };
  EXPECT_TRUE(WaitFor([&] { return service_->pushed(check).isOk() && count == number; }));
}

TEST_F(Calls, LookUp_IsAnsweredWhileThePoolIsBusy) {
  Serve();
  std::thread blocked([&] { EXPECT_FALSE(service_->block().isOk()); });
  EXPECT_TRUE(process_->WaitForOutput("blocked", kDeadline));
  // Behind block(), on the service's only thread.
  std::thread waiting([&] { EXPECT_FALSE(service_->ping().isOk()); });
  for (int i = 0; i < 100; ++i) EXPECT_NE(ITest::tryGetService("default"), nullptr);
  process_->Signal(SIGKILL);
  process_->Wait(kDeadline);
  blocked.join();
  waiting.join();
}

// What a thread needs for its first call is a descriptor: without one it still calls.
TEST_F(Calls, ThreadsWhenDescriptorsHaveRunOut_StillCall) {
  Serve("2");
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit used_up{3, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &used_up), 0);
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int call = 0; call < 50; ++call) answered += service_->ping().isOk() ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(answered, 200);
}

#ifndef BTHAL_SANITIZED  // whose own threads run
TEST_F(Calls, IdleProcesses_DoNotRun) {
  Serve();
  Attach([](const Bytes&) {}, true);
  const auto switches = [&] {
    uint64_t sum = 0;
    const std::string tasks = "/proc/" + std::to_string(process_->pid()) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      const std::string status = test::ReadFile(task.path() / "status");
      sum += std::stoull(status.substr(status.find("\nvoluntary_ctxt_switches:") + 25));
    }
    return sum;
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // until all threads rest
  const uint64_t before = switches();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the time that is measured
  EXPECT_EQ(switches(), before);
}
#endif

}  // namespace
