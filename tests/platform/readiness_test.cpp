// A service tells its supervisor that it can be called, and whether anything is attached.
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

#include "platform/raw_peer.h"
#include "platform/service_fixture.h"

namespace {

using android::base::unique_fd;
using test::ChildProcess;
using test::ITest;

constexpr timeval kReceiveTime{20, 0};

// Bound to a path, or to an abstract name behind '@', of exactly that length.
unique_fd DatagramSocket(const std::string& name) {
  unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path, sizeof address.sun_path);
  if (name[0] == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kReceiveTime, sizeof kReceiveTime);
  return fd;
}

std::string Receive(const unique_fd& supervisor) {
  char message[64];
  const ssize_t size = recv(supervisor.get(), message, sizeof message, 0);
  return std::string(message, size > 0 ? static_cast<size_t>(size) : 0);
}

TEST(Readiness, WhenToldOnPathOrAbstractName_ServiceCanBeCalled) {
  const test::TempDir folder;
  for (const std::string& name :
       {folder / "notify", "@bthal-readiness-" + std::to_string(getpid())}) {
    const unique_fd supervisor = DatagramSocket(name);
    const ChildProcess service({test::TestProgram("platform_test_service")},
                               {{"NOTIFY_SOCKET", name}});
    ASSERT_EQ(Receive(supervisor), "READY=1") << name << ": " << service.Output();
    const android::sp<ITest> found = ITest::tryGetService("default");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->deaths().withDefault(UINT32_MAX), 0U);
    char message[64];
    EXPECT_EQ(recv(supervisor.get(), message, sizeof message, MSG_DONTWAIT), -1) << "told twice";
  }
}

TEST(Readiness, WhenTheFirstClientAttachesAndTheLastGoes_StatusSaysSo) {
  const test::TempDir folder;
  const unique_fd supervisor = DatagramSocket(folder / "notify");
  const ChildProcess service({test::TestProgram("platform_test_service")},
                             {{"NOTIFY_SOCKET", folder / "notify"}});
  ASSERT_EQ(Receive(supervisor), "READY=1") << service.Output();
  const android::sp<ITest> found = ITest::tryGetService("default");
  ASSERT_NE(found, nullptr);
  EXPECT_TRUE(found->attach(new test::Callback, false).isOk()) << "its death is nobody's concern";
  for (int round = 0; round < 2; ++round) {
    std::optional<test::RawPeer> first, second;
    EXPECT_TRUE(first.emplace().Attach());
    EXPECT_EQ(Receive(supervisor), "STATUS=a client is attached");
    EXPECT_TRUE(second.emplace().Attach());
    first.reset();
    EXPECT_TRUE(test::WaitFor([&] { return found->deaths() == 2U * round + 1; }, test::kDeadline));
    second.reset();
    EXPECT_EQ(Receive(supervisor), "STATUS=no client is attached");
  }
}

TEST(Readiness, WhenNotToldOrNobodyListens_ServiceRuns) {
  for (const char* name : {"", "relative", "/nowhere/at/all"}) {
    ChildProcess service({test::TestProgram("platform_test_service")}, {{"NOTIFY_SOCKET", name}});
    ASSERT_TRUE(service.WaitForOutput("serving", test::kDeadline));
    const android::sp<ITest> found = ITest::tryGetService("default");
    ASSERT_NE(found, nullptr) << name;
    EXPECT_EQ(found->deaths().withDefault(UINT32_MAX), 0U);
  }
}

}  // namespace
