// The messaging library of handsets whose controller hangs on a low-power co-processor, as far as
// this service needs it. On such a handset an adapter to the maker's closed library implements
// these functions and classes; on a Linux machine platform/host/qvr does, over a Unix socket.
//
// Every int result is 0 or one of Error, numbered as the library does. Any thread may call.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qvr {

enum Error : int {
  kUnknown = 1,
  kOperationFailed = 2,
  kValueTooBig = 3,
  kSystemService = 4,
  kBuffer = 5,
  kMemoryAllocation = 6,
  kNotFound = 7,
  kNotSupported = 8,
  kBadValue = 9,
  kOperationCanceled = 10,
  kServiceNotAvailable = 11,
  kNotReady = 12,
  kAllocation = 13,
  kIo = 14,
  kInvalidValue = 15,
  kOperationTimedOut = 16,
  kContainerFull = 17,
  kValueTooSmall = 18,
  kItemAlreadyExists = 19,
  kValueOutOfRange = 20,
};

// A message to a server: a FlatBuffers table, and a payload attached to it.
struct Request {
  std::vector<uint8_t> table;
  std::vector<uint8_t> payload;
};

// A connection to the co-processor. Its handlers run on one thread of the library, one at a time,
// and may destroy the client: then on return nothing of it runs any more but the calling handler.
// Destroyed on any other thread, it waits for a running handler.
class TransportClient {
 public:
  // The bytes of a message's table; they live until the handler returns.
  using MessageHandler = std::function<void(const uint8_t* table, size_t size)>;

  virtual ~TransportClient() = default;

  virtual int Connect() = 0;
  // The number of the server of that name.
  virtual int FindServer(const std::string& name, uint32_t* id) = 0;
  // Called once when the connection is lost, not when it is closed from this side.
  virtual int SetConnectionHandler(std::function<void()> on_lost) = 0;
  // Takes the messages of a type; an empty handler ends that. Once this returns, the handler before
  // is neither running nor will be, unless it is the caller.
  virtual int SetMessageHandler(uint32_t type, MessageHandler handler) = 0;
  // Sends without waiting. A result of 0 means that on_complete will get the outcome, unless the
  // client is destroyed before; any other, that it is not called. Messages arrive in order.
  virtual int Send(const Request& request, std::function<void(int error)> on_complete) = 0;
  // Sends and waits for the response. Returns what went wrong with sending; *response_error is
  // what the server answered, or kOperationTimedOut.
  virtual int Call(const Request& request, std::chrono::milliseconds timeout,
                   int* response_error) = 0;
};

// A named thread that runs tasks in order. Destroyed on its own thread, it ends after the running
// task; elsewhere, it waits for that. Tasks that have not begun are dropped.
class Worker {
 public:
  virtual ~Worker() = default;
  virtual void Post(std::function<void()> task) = 0;
};

// The library's process-wide part; needed by every client.
int InitClientManager();
void ReleaseClientManager();

// type: of the client; 1 carries messages.
int CreateTransportClient(int type, std::unique_ptr<TransportClient>* client);
// name: of the thread, at most 15 characters.
int CreateWorker(const std::string& name, std::unique_ptr<Worker>* worker);

}  // namespace qvr
