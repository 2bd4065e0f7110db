// In the place of the co-processor's library: tasks run where they are posted. Each target has a
// client of its own.
#include <qvr/qvr_client.h>

namespace qvr {
namespace {

struct InlineWorker : Worker {
  void Post(std::function<void()> task) override { task(); }
};

}  // namespace

int InitClientManager() { return 0; }
void ReleaseClientManager() {}
int CreateWorker(const std::string&, std::unique_ptr<Worker>* worker) {
  *worker = std::make_unique<InlineWorker>();
  return 0;
}

}  // namespace qvr
