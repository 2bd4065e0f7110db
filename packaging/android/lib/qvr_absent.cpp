// For handsets without a co-processor: there is nothing to connect to. A handset that has one
// replaces this file by its adapter to the maker's library.
#include <qvr/qvr_client.h>

namespace qvr {

int InitClientManager() { return kServiceNotAvailable; }

void ReleaseClientManager() {}

int CreateTransportClient(int /*type*/, std::unique_ptr<TransportClient>* /*client*/) {
  return kServiceNotAvailable;
}

int CreateWorker(const std::string& /*name*/, std::unique_ptr<Worker>* /*worker*/) {
  return kServiceNotAvailable;
}

}  // namespace qvr
