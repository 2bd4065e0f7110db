// What fuzz targets share. A target is a file with LLVMFuzzerTestOneInput() and Seeds(): linked
// with a fuzzing engine it looks for new inputs, else it runs those that are known
// (corpus_main.cpp).
//
// The service ends its process on a fatal error through Report(); in these programs Report() throws
// Fatal instead, on a thread of the service's own it ends that thread. Either is an allowed end.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Inputs made of the vectors in tests/data; each target has its own.
std::vector<std::string> Seeds();

// For Seeds(). The packets in a file: a field's steps "event BYTES" or just bytes, put together.
std::vector<std::string> Packets(const std::string& file, size_t field = 0);
// The texts in a file, without those that are absent.
std::vector<std::string> Texts(const std::string& file, size_t field);
// Each of seeds with prefix before it.
std::vector<std::string> Prefixed(const std::string& prefix, std::vector<std::string> seeds);
// Adds more to seeds.
void Append(std::vector<std::string>* seeds, const std::vector<std::string>& more);

// Thrown where the service would end its process.
struct Fatal {};
// How many fatal errors there have been.
int FatalErrors();

// Ends the program unless condition holds: a finding.
void Require(bool condition, const char* what);

// An input, taken apart from its front.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), end_(data + size) {}
  bool empty() const { return data_ == end_; }
  size_t size() const { return static_cast<size_t>(end_ - data_); }
  uint8_t Byte() { return empty() ? uint8_t{0} : *data_++; }  // 0 behind the end
  // count bytes, fewer at the end.
  std::string Take(size_t count);
  std::string Rest() { return Take(size()); }
  // Up to separator, which is dropped.
  std::string Until(char separator);

 private:
  const uint8_t* data_;
  const uint8_t* end_;
};

// Between the parts of an input that has several.
inline constexpr char kSeparator = '\x1E';

// Makes path, a file below the root folder of this process, hold content: in memory, to be opened
// by root_folder::Open() and read, or on disk.
void Put(const std::string& path, const std::string& content);
void PutOnDisk(const std::string& path, const std::string& content);
// What it holds.
std::string Get(const std::string& path);
// read(), which knows the files in memory.
ssize_t Read(int descriptor, void* buffer, size_t size);
// What the service logs goes nowhere, but is formatted, too; for one input in four, by its size,
// because it takes as long as the rest.
void Log(size_t size);

}  // namespace fuzz
