// A messaging library whose results a test sets, linked in the place of the platform's: for what a
// real connection cannot be brought to do.
#pragma once

#include <qvr/qvr_client.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace test {

// Not synchronised: one thread at a time.
struct QvrFake {
  static QvrFake& Get();

  // By function ("Connect"): the results of its next calls; then 0.
  std::map<std::string, std::deque<int>> results;
  // How often each has been called.
  std::map<std::string, int> calls;
  // What CreateTransportClient and CreateWorker hand out, with a result of 0.
  bool null_client = false;
  bool null_worker = false;
  // What the server answers to the next calls.
  int response_error = 0;
  std::vector<qvr::Request> requests;
  // The handler for messages of type 8. Tasks of a worker run inside Post().
  qvr::TransportClient::MessageHandler handler;
};

}  // namespace test
