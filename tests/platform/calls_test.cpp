// Calls between two processes that behave.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "platform/service_fixture.h"
#include "support/temp_dir.h"

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
using test::platform::V1_0::Bits;
using test::platform::V1_0::Choice;
using test::platform::V1_0::Color;
using test::platform::V1_0::ICallback;
using test::platform::V1_0::Inner;
using test::platform::V1_0::Outer;

class Calls : public test::ServiceTest {};

Bytes Pattern(size_t size, uint8_t first = 0) {
  Bytes bytes(size);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

// A descriptor's text so far.
std::string ReadAll(int descriptor) {
  char text[256];
  const ssize_t size = read(descriptor, text, sizeof text);
  return size < 0 ? "" : std::string(text, static_cast<size_t>(size));
}

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

TEST_F(Calls, Structs_ComeBackWithAllThatTheyReferTo) {
  Serve();
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  native_handle_t* native = native_handle_create(1, 2);
  native->data[0] = ends[1];
  native->data[1] = 5;
  native->data[2] = -6;

  Outer outer;
  const int32_t rows[2][3] = {{1, -2, 3}, {4, 5, -6}};
  outer.plain = {-1,
                 2,
                 -3,
                 1ull << 40,
                 1.5f,
                 -2.25,
                 hidl_array<uint8_t, 6>({1, 2, 3, 4, 5, 6}),
                 hidl_array<int32_t, 2, 3>(rows)};
  outer.inners = {Inner{"first", {1, 2, 3}, Color::BLUE, static_cast<uint32_t>(Bits::B)},
                  Inner{"", {}, Color::RED, 0}};
  outer.names = {"one", "", std::string(5000, 'x')};
  outer.descriptors.setTo(native, true);
  outer.plains = {outer.plain, outer.plain};
  outer.pair[0] = "left";
  outer.pair[1] = "right";

  bool called = false;
  ASSERT_TRUE(service_
                  ->echoOuter(outer,
                              [&](const Outer& back) {
                                called = true;
                                EXPECT_EQ(back.plain, outer.plain);
                                EXPECT_EQ(back.inners, outer.inners);
                                EXPECT_EQ(back.names, outer.names);
                                EXPECT_EQ(back.plains, outer.plains);
                                EXPECT_EQ(back.pair, outer.pair);
                                ASSERT_EQ(back.descriptors->numFds, 1);
                                EXPECT_EQ(back.descriptors->data[2], -6);
                                EXPECT_EQ(dprintf(back.descriptors->data[0], "through"), 7);
                              })
                  .isOk());
  EXPECT_TRUE(called);
  EXPECT_EQ(ReadAll(ends[0]), "through");
  close(ends[0]);

  Choice choice;
  choice.text("chosen");
  EXPECT_TRUE(service_->echoChoice(choice, [&](const Choice& c) { EXPECT_EQ(c, choice); }).isOk());
  choice.blob({9, 8, 7});
  EXPECT_TRUE(service_->echoChoice(choice, [&](const Choice& c) { EXPECT_EQ(c, choice); }).isOk());

  hidl_vec<int64_t> sums;
  EXPECT_TRUE(service_
                  ->numbers({-4, 10}, {1.5, 1.5}, {Color::GREEN, Color::BLUE}, {true, false, true},
                            [&](const hidl_vec<int64_t>& s) { sums = s; })
                  .isOk());
  EXPECT_EQ(sums, (hidl_vec<int64_t>{6, 3, 6, 2}));
}

TEST_F(Calls, Descriptors_PassBothWaysAndNoneIsLeft) {
  Serve();
  EXPECT_TRUE(service_->ping().isOk());  // threads open a descriptor for their first call
  const int before = test::CountDescriptors(process_->pid());
  const int own_before = test::CountDescriptors(getpid());
  for (int i = 0; i < 50; ++i) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
    native_handle_t* native = native_handle_init(storage, 1, 0);
    native->data[0] = ends[1];
    ASSERT_TRUE(service_
                    ->writeTo(native, "from the service",
                              [&](const hidl_handle& copy) {
                                ASSERT_EQ(copy->numFds, 1);
                                EXPECT_EQ(copy->data[1], 77);
                                EXPECT_EQ(dprintf(copy->data[0], " and back"), 9);
                              })
                    .isOk());
    EXPECT_EQ(ReadAll(ends[0]), "from the service and back");
    close(ends[0]);
    close(ends[1]);
  }
  EXPECT_TRUE(service_
                  ->writeTo(nullptr, "",
                            [](const hidl_handle& h) { EXPECT_EQ(h.getNativeHandle(), nullptr); })
                  .isOk());
  EXPECT_EQ(test::CountDescriptors(getpid()), own_before);
  EXPECT_TRUE(
      WaitFor([&] { return test::CountDescriptors(process_->pid()) == before; }, kDeadline));
}

TEST_F(Calls, ClosedDescriptor_FailsThatCallOnly) {
  Serve();
  NATIVE_HANDLE_DECLARE_STORAGE(storage, 1, 0);
  native_handle_t* native = native_handle_init(storage, 1, 0);
  native->data[0] = 100000;
  EXPECT_FALSE(service_->writeTo(native, "", [](const hidl_handle&) {}).isOk());
  EXPECT_TRUE(service_->ping().isOk());
}

TEST_F(Calls, Callbacks_ArriveInTheCallOnTheCallersThread) {
  Serve();
  const sp<Callback> callback = new Callback;
  const std::thread::id caller = std::this_thread::get_id();
  callback->on_event = [&](const Bytes& data) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(data.size(), 10u);
    // One deeper: the service's only thread waits for this event.
    EXPECT_TRUE(service_->echo(data, [&](const Bytes& back) { EXPECT_EQ(back, data); }).isOk());
  };
  EXPECT_TRUE(service_->attach(callback, false).isOk());
  uint32_t done = 0;
  CallBack(100, Pattern(10), &done);
  EXPECT_EQ(done, 100u);
  EXPECT_EQ(callback->events, 100u);
}

TEST_F(Calls, CallbackOutsideACall_ArrivesOnThePool) {
  Serve();
  const sp<Callback> callback = new Callback;
  const std::thread::id caller = std::this_thread::get_id();
  callback->on_event = [&](const Bytes&) {
    EXPECT_NE(std::this_thread::get_id(), caller);
    EXPECT_TRUE(service_->ping().isOk());
  };
  EXPECT_TRUE(service_->attach(callback, false).isOk());
  EXPECT_TRUE(service_->callBackLater(Pattern(3)).isOk());
  EXPECT_TRUE(WaitFor([&] { return callback->events == 1; }, kDeadline));
}

TEST_F(Calls, Objects_KeepTheirIdentity) {
  Serve();
  const sp<Callback> mine = new Callback;
  EXPECT_TRUE(service_->attach(mine, false).isOk());
  const sp<ICallback> back = service_->attached();
  EXPECT_EQ(back, mine) << "the own object came back as another one";
  EXPECT_TRUE(service_->isAttached(mine));
  EXPECT_FALSE(service_->isAttached(new Callback));
  EXPECT_FALSE(service_->isAttached(nullptr));

  const sp<ITest> again = ITest::tryGetService("default");
  EXPECT_TRUE(interfacesEqual(service_, again));
  EXPECT_FALSE(interfacesEqual(service_, sp<ICallback>(mine)));
  const sp<IBase> base = service_;
  EXPECT_NE(sp<ITest>(ITest::castFrom(base)), nullptr);
  EXPECT_EQ(sp<ICallback>(ICallback::castFrom(base)), nullptr);
}

TEST_F(Calls, ObjectGivenUpByTheOtherProcess_IsDestroyed) {
  Serve();
  sp<Callback> callback = new Callback;
  const wp<Callback> watched = callback;
  EXPECT_TRUE(service_->attach(callback, false).isOk());
  callback.clear();
  EXPECT_NE(watched.promote(), nullptr) << "the service still holds it";
  EXPECT_TRUE(service_->attach(new Callback, false).isOk());
  EXPECT_TRUE(WaitFor([&] { return watched.promote() == nullptr; }, kDeadline));
}

TEST_F(Calls, FourThreads_GetTheirOwnReplies) {
  Serve("4");
  const int calls = test::Count("calls by four threads", 100000) / 4;
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (uint8_t number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const Bytes data = Pattern(20, number);
      for (int i = 0; i < calls; ++i) {
        bool same = false;
        if (!service_->echo(data, [&](const Bytes& back) { same = back == data; }).isOk() ||
            !same) {
          ++wrong;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(Calls, CallsAndCallbacksFromBothSides_DoNotBlockEachOther) {
  Serve("2");
  const sp<Callback> callback = new Callback;
  callback->on_event = [&](const Bytes&) { EXPECT_TRUE(service_->ping().isOk()); };
  EXPECT_TRUE(service_->attach(callback, false).isOk());
  const auto rounds = static_cast<uint32_t>(test::Count("rounds of calls both ways", 3000));
  std::thread later([&] {
    for (uint32_t i = 0; i < rounds; ++i) EXPECT_TRUE(service_->callBackLater(Bytes(4)).isOk());
  });
  for (uint32_t i = 0; i < rounds; ++i) {
    uint32_t done = 0;
    CallBack(1, Bytes(100), &done);
    ASSERT_EQ(done, 1u);
  }
  later.join();
  EXPECT_TRUE(WaitFor([&] { return callback->events == 2 * rounds; }, kDeadline));
}

TEST_F(Calls, Oneway_ArrivesInOrderAndDoesNotWait) {
  Serve("4");
  uint32_t number = 0;
  for (int round = 0; round < 50; ++round) {
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(service_->push(++number).isOk());
    EXPECT_TRUE(service_->ping().isOk());
  }
  EXPECT_TRUE(WaitFor(
      [&] {
        uint32_t count = 0;
        EXPECT_TRUE(service_
                        ->pushed([&](uint32_t pushed, uint32_t disordered) {
                          count = pushed;
                          EXPECT_EQ(disordered, 0u);
                        })
                        .isOk());
        return count == number;
      },
      kDeadline));
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
  EXPECT_TRUE(service_->attach(new Callback, true).isOk());
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
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the time that is measured
  EXPECT_EQ(switches(), before);
}
#endif

}  // namespace
