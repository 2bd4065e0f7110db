#include "rpc/obituaries.h"

#include <utility>

#include "rpc/proxy.h"
#include "rpc/thread_pool.h"

namespace bthal::rpc {
namespace {

class ObituaryTask : public Task {
 public:
  explicit ObituaryTask(std::vector<android::sp<Proxy>> dead) : dead_(std::move(dead)) {}
  void Run() override {
    for (const android::sp<Proxy>& proxy : dead_) proxy->SendObituary();
  }

 private:
  const std::vector<android::sp<Proxy>> dead_;
};

}  // namespace

void PostObituaries(std::vector<android::sp<Proxy>> dead) {
  static ThreadPool* const thread = [] {
    auto* pool = new ThreadPool("rpc-death", ThreadPool::Idle::kSleep);
    pool->Start();
    return pool;
  }();
  if (!dead.empty()) thread->Post(std::make_unique<ObituaryTask>(std::move(dead)));
}

}  // namespace bthal::rpc
