// Calls between two processes that behave.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/service_fixture.h"
#include "rpc/thread_pool.h"
#include "support/temp_dir.h"

namespace {

using namespace android::hardware;  // NOLINT: as clients do
using android::sp;
using android::wp;
using ::android::hidl::base::V1_0::IBase;
using test::Callback;
using test::CountDescriptors;
using test::ITest;
using test::Payload;
using test::WaitFor;
using test::platform::V1_0::ICallback;

class Calls : public test::ServiceTest {};

pid_t ThreadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (test::ReadFile(task.path() / "comm") == name + "\n")
      return std::stoi(task.path().filename());
  }
  ADD_FAILURE() << "no thread " << name;
  return 0;
}

Payload Pattern(size_t size, uint8_t first = 0) {
  Payload bytes(size);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

TEST_F(Calls, Bytes_OfEverySize_ComeBack) {
  Serve();
  for (const size_t size : {0, 1, 3, 4, 7, 255, 256, 257, 1021, 65536, 190000}) {
    const Payload sent = Pattern(size);
    Payload received;
    ASSERT_TRUE(service_->echo(sent, [&](const Payload& data) { received = data; }).isOk());
    EXPECT_EQ(received, sent) << size;
  }
  EXPECT_FALSE(service_->echo(Payload(200 * 1024), [](const Payload&) {}).isOk()) << "too large";
  EXPECT_TRUE(service_->ping().isOk()) << "a message too large to send cost the connection";
}

TEST_F(Calls, Descriptors_PassBothWaysAndNoneIsLeft) {
  Serve();
  EXPECT_TRUE(service_->ping().isOk());  // threads open a descriptor for their first call
  const int before = CountDescriptors(process_->pid());
  const int own_before = CountDescriptors(getpid());
  for (int i = 0; i < 20; ++i) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    native_handle_t* native = native_handle_create(1, 2);
    native->data[0] = ends[1];
    hidl_handle handle;
    handle.setTo(native, true);
    const auto write_back = [](const hidl_handle& copy) {
      ASSERT_EQ(copy->numFds, 1);
      EXPECT_EQ(copy->data[1], 77);
      EXPECT_EQ(dprintf(copy->data[0], " and back"), 9);
    };
    ASSERT_TRUE(service_->writeTo(handle, "from the service", write_back).isOk());
    char text[64] = "";
    EXPECT_EQ(read(ends[0], text, sizeof text), 25);
    EXPECT_STREQ(text, "from the service and back");
    close(ends[0]);
  }
  const auto expect_null = [](const hidl_handle& h) { EXPECT_EQ(h.getNativeHandle(), nullptr); };
  EXPECT_TRUE(service_->writeTo(nullptr, "", expect_null).isOk());
  EXPECT_EQ(CountDescriptors(getpid()), own_before);
  EXPECT_TRUE(WaitFor([&] { return CountDescriptors(process_->pid()) == before; }));

  NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
  native_handle_t* closed = native_handle_init(storage, 1, 0);
  closed->data[0] = 100000;
  EXPECT_FALSE(service_->writeTo(closed, "", [](const hidl_handle&) {}).isOk());
  EXPECT_TRUE(service_->ping().isOk()) << "a closed descriptor fails more than its call";
}

TEST_F(Calls, Objects_KeepTheirIdentityAndGoWithTheLastReference) {
  Serve();
  sp<Callback> mine = Attach([](const Payload&) {});
  sp<ICallback> back = service_->attached();
  EXPECT_EQ(back, mine) << "the own object came back as another one";

  EXPECT_TRUE(interfacesEqual(service_, ITest::tryGetService("default")));
  EXPECT_FALSE(interfacesEqual(service_, sp<ICallback>(mine)));
  const sp<IBase> base = service_;
  EXPECT_NE(sp<ITest>(ITest::castFrom(base)), nullptr);
  EXPECT_EQ(sp<ICallback>(ICallback::castFrom(base)), nullptr);

  const wp<Callback> watched = mine;
  mine.clear();
  back.clear();
  EXPECT_NE(watched.promote(), nullptr) << "the service still holds it";
  Attach([](const Payload&) {});
  EXPECT_TRUE(WaitFor([&] { return watched.promote() == nullptr; }));
}

TEST_F(Calls, ManyThreadsBothWays_GetTheirOwnRepliesOnTheirOwnThreads) {
  Serve("3");
  const std::thread::id caller = std::this_thread::get_id();
  const sp<Callback> callback = Attach([&](const Payload&) {
    EXPECT_EQ(std::this_thread::get_id(), caller) << "in its call, which it need not wait for";
    EXPECT_TRUE(service_->ping().isOk());
  });
  callback->on_notify = [&](uint32_t) {
    EXPECT_NE(std::this_thread::get_id(), caller);
    EXPECT_TRUE(service_->ping().isOk());
  };
  const auto rounds = static_cast<uint32_t>(test::Count("rounds of calls both ways", 3000));
  std::atomic<uint32_t> right{0};
  std::vector<std::thread> threads;
  for (uint8_t number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const Payload data = Pattern(20, number);
      for (uint32_t i = 0; i < rounds; ++i) {
        (void)service_->echo(data, [&](const Payload& back) { right += back == data; }).isOk();
      }
    });
  }
  for (uint32_t i = 0; i < rounds; ++i) {
    EXPECT_EQ(CallBack(1, Payload(100)), 1u);
    if (i % 10 == 0) {
      EXPECT_EQ(service_->notifyBack(1), 1u);
    }
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 4 * rounds);
  EXPECT_EQ(callback->events, rounds);
  EXPECT_TRUE(WaitFor([&] { return callback->notices == (rounds + 9) / 10; }));
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

// What a thread needs for its first call is a descriptor: without one it still calls.
TEST_F(Calls, CallsThatRunAhead_ComeInOrderAndBeforeAPingWhileTheirHandlersCallBack) {
  Serve();
  const sp<Callback> callback = Attach([](const Payload&) {});
  std::atomic<uint32_t> next{1}, wrong{0};
  callback->on_stream = [&](const Payload& data) {
    uint32_t number = 0;
    memcpy(&number, data.data(), sizeof number);
    if (number != next++) ++wrong;
    // The service's only thread is busy sending: it serves this only once the window is full.
    if (number % 1000 == 0 && !service_->echo(data, [](const Payload&) {}).isOk()) ++wrong;
  };
  for (const auto& [count, size] : {std::pair(20000u, 40u), std::pair(2000u, 65000u)}) {
    next = 1;
    const uint32_t before = callback->streamed;
    EXPECT_EQ(StreamBack(count, Payload(size)), count);
    EXPECT_EQ(callback->streamed, before + count);
    EXPECT_EQ(wrong, 0u);
  }
}

TEST_F(Calls, WhileThePoolIsBusy_TheThreadThatReadsInItsPlaceSleeps) {
  Serve();
  bthal::rpc::ThreadPool& pool = bthal::rpc::HidlThreadPool();
  pool.Start();
  const pid_t io_thread = ThreadNamed("bthal-io");
  for (int i = 0; i < 300 && !HasFailure(); ++i) {
    std::promise<void> may_end, ended;
    std::atomic<bool> runs{false};
    for (int n = 0; n < 20; ++n) pool.Post([] {});  // wakings, some of which come too late
    pool.Post([&] {
      runs = true;
      may_end.get_future().wait();
      ended.set_value();
    });
    EXPECT_TRUE(WaitFor([&] { return runs && test::IsAsleep(io_thread); })) << "round " << i;
    may_end.set_value();
    ended.get_future().wait();
  }
}

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

}  // namespace
