#define LOG_TAG "fuzz"

#include "target.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <fcntl.h>
#include <log/log.h>
#include <pthread.h>
#include <root_folder/root_folder.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "evidence/report.h"
#include "support/temp_dir.h"
#include "support/vectors.h"

extern "C" ssize_t __real_read(int descriptor, void* buffer, size_t size);

namespace fuzz {
namespace {

using android::base::unique_fd;

const pthread_t main_thread = pthread_self();
std::atomic<int> fatal_errors{0};

// In memory. Its descriptor is one that the kernel has not; all that is open of it has one offset.
struct File {
  int descriptor;
  std::string content;
  size_t offset = 0;
};
std::map<std::string, File> files;  // by path
int next_descriptor = 1 << 24;

File* FindFile(int descriptor) {
  for (auto& [path, file] : files) {
    if (file.descriptor == descriptor) return &file;
  }
  return nullptr;
}

}  // namespace

std::vector<std::string> Packets(const std::string& file, size_t field) {
  std::vector<std::string> seeds;
  for (const test::Vector& vector : test::LoadVectors(file)) {
    if (vector.fields.size() <= field) continue;
    std::string seed;
    const std::string& steps = vector.fields[field];
    const char separator = steps.find(';') == std::string::npos ? ',' : ';';
    for (const std::string& step : test::SplitTrimmed(steps, separator)) {
      const bool is_event = step.rfind("event ", 0) == 0;
      if (!is_event && step.find_first_not_of("0123456789ABCDEF* ") != std::string::npos) continue;
      const test::Bytes bytes = test::ParseHex(is_event ? step.substr(6) : step);
      seed.append(bytes.begin(), bytes.end());
    }
    seeds.push_back(seed);
  }
  return seeds;
}

std::vector<std::string> Texts(const std::string& file, size_t field) {
  std::vector<std::string> seeds;
  for (const test::Vector& vector : test::LoadVectors(file)) {
    if (vector.fields.size() <= field) continue;
    if (const auto text = test::ParseText(vector.fields[field])) seeds.push_back(*text);
  }
  return seeds;
}

std::vector<std::string> Prefixed(const std::string& prefix, std::vector<std::string> seeds) {
  for (std::string& seed : seeds) seed.insert(0, prefix);
  return seeds;
}

void Append(std::vector<std::string>* seeds, const std::vector<std::string>& more) {
  seeds->insert(seeds->end(), more.begin(), more.end());
}

int FatalErrors() { return fatal_errors; }

void Require(bool condition, const char* what) {
  if (condition) return;
  fprintf(stderr, "fuzz: not so: %s\n", what);
  abort();
}

std::string Input::Take(size_t count) {
  const uint8_t* begin = data_;
  data_ += std::min(count, size());
  return {begin, data_};
}

std::string Input::Until(char separator) {
  const uint8_t* at = std::find(data_, end_, static_cast<uint8_t>(separator));
  std::string part(data_, at);
  data_ = at == end_ ? end_ : at + 1;
  return part;
}

void Put(const std::string& path, const std::string& content) {
  const auto file = files.try_emplace(path, File{next_descriptor, {}});
  if (file.second) ++next_descriptor;
  file.first->second.content = content;
}

void PutOnDisk(const std::string& path, const std::string& content) {
  files.erase(path);
  const std::filesystem::path file = root_folder::Resolve(path);
  std::filesystem::create_directories(file.parent_path());
  test::WriteFile(file, content);
}

std::string Get(const std::string& path) {
  const unique_fd file(root_folder::Open(path, O_RDONLY));
  std::string content;
  Require(android::base::ReadFdToString(file, &content), "a file can be read");
  return content;
}

ssize_t Read(int descriptor, void* buffer, size_t size) {
  File* const file = FindFile(descriptor);
  if (file == nullptr) return __real_read(descriptor, buffer, size);
  const size_t count = std::min(size, file->content.size() - file->offset);
  memcpy(buffer, file->content.data() + file->offset, count);
  file->offset += count;
  return static_cast<ssize_t>(count);
}

void Log(size_t size) {
  static const bool done = [] {
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    return true;
  }();
  static_cast<void>(done);
  __android_log_set_minimum_priority(size % 4 == 0 ? ANDROID_LOG_VERBOSE : ANDROID_LOG_FATAL);
}

}  // namespace fuzz

namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug {

void Report(BqrErrorCode code, const std::string& why) {
  ++fuzz::fatal_errors;
  ALOGE("fatal error %d: %s", static_cast<int>(code), why.c_str());
  if (pthread_equal(pthread_self(), fuzz::main_thread) == 0) pthread_exit(nullptr);
  throw fuzz::Fatal();
}

}  // namespace android::hardware::bluetooth::V1_1::zvkbtlinux::debug

// In the place of what the service calls: opening and reading a file takes the kernel longer than
// most inputs take the service.
extern "C" __attribute__((weak)) ssize_t __wrap_read(int descriptor, void* buffer, size_t size) {
  return fuzz::Read(descriptor, buffer, size);
}

bool android::base::ReadFdToString(borrowed_fd file, std::string* content) {
  content->clear();
  char part[4096];
  ssize_t count;
  while ((count = TEMP_FAILURE_RETRY(read(file.get(), part, sizeof part))) > 0) {
    content->append(part, static_cast<size_t>(count));
  }
  return count == 0;
}

namespace root_folder {

const std::string& Path() {
  static const auto* folder = new std::string([] {
    const char* value = getenv("BTHAL_ROOT");
    fuzz::Require(value != nullptr && *value == '/', "BTHAL_ROOT names a folder");
    return value;
  }());
  return *folder;
}

std::string Resolve(const std::string& path) { return Path() + path; }

int Open(const std::string& path, int flags, mode_t mode) {
  const auto found = fuzz::files.find(path);
  if (found == fuzz::files.end()) return open(Resolve(path).c_str(), flags | O_CLOEXEC, mode);
  found->second.offset = 0;
  return found->second.descriptor;
}

DIR* OpenDirectory(const std::string& path) { return opendir(Resolve(path).c_str()); }

bool Exists(const std::string& path) {
  return fuzz::files.count(path) > 0 || access(Resolve(path).c_str(), F_OK) == 0;
}

}  // namespace root_folder

// --seeds FOLDER writes the seeds there, in the place of anything else.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  if (*argc != 3 || strcmp((*argv)[1], "--seeds") != 0) return 0;
  int number = 0;
  for (const std::string& seed : fuzz::Seeds()) {
    test::WriteFile((*argv)[2] + ("/seed-" + std::to_string(number++)), seed);
  }
  exit(0);
}
