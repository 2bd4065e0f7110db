#define LOG_TAG "bthal.properties"

#include "system/property_store.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "root_folder/root_folder.h"

namespace bthal {
namespace {

// A value is shorter than this, unless the property can only be set once.
constexpr size_t kMaxValueBytes = 92;

constexpr char kBuildFile[] = "/vendor/build.prop";
constexpr char kPersistentFile[] = "/data/property/persistent.prop";

bool IsComment(const std::string& line) {
  const std::string text = android::base::Trim(line);
  return text.empty() || text.front() == '#';
}

// A line's name and value; nothing when it has none.
std::optional<std::pair<std::string, std::string>> Parse(const std::string& line) {
  const size_t equals = line.find('=');
  if (equals == std::string::npos) return std::nullopt;
  const std::string name = android::base::Trim(line.substr(0, equals));
  if (name.empty() || name.find_first_of(" \t") != std::string::npos) return std::nullopt;
  return std::make_pair(name, android::base::Trim(line.substr(equals + 1)));
}

std::vector<std::string> ReadLines(const char* path) {
  std::string text;
  const android::base::unique_fd file(root_folder::Open(path, O_RDONLY | O_NOFOLLOW));
  if (file.get() < 0 || !android::base::ReadFdToString(file, &text)) {
    if (errno != ENOENT) PLOG(ERROR) << path;
    return {};
  }
  std::vector<std::string> lines = android::base::Split(text, "\n");
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

// As a whole or not at all, whenever the machine stops.
bool ReplaceFile(const char* path, const std::vector<std::string>& lines) {
  const std::string target = root_folder::Resolve(path);
  const std::string fresh = target + ".new";
  const std::string text = android::base::Join(lines, '\n') + "\n";
  mkdir(root_folder::Resolve("/data").c_str(), 0771);
  mkdir(root_folder::Resolve("/data/property").c_str(), 0700);
  unlink(fresh.c_str());  // of a process that died, or a link that would be followed
  const android::base::unique_fd file(
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return file.get() >= 0 && android::base::WriteStringToFd(text, file) && fsync(file.get()) == 0 &&
         rename(fresh.c_str(), target.c_str()) == 0;
}

// Changes one line; whatever else the file holds stays.
bool WriteBack(const std::string& name, const std::string& value) {
  std::vector<std::string> lines = ReadLines(kPersistentFile);
  const std::string changed = name + "=" + value;
  bool found = false;
  for (std::string& line : lines) {
    const auto property = IsComment(line) ? std::nullopt : Parse(line);
    if (!property || property->first != name) continue;
    line = changed;
    found = true;
  }
  if (!found) lines.push_back(changed);
  return ReplaceFile(kPersistentFile, lines);
}

}  // namespace

PropertyStore::PropertyStore() {
  Load(kBuildFile);
  Load(kPersistentFile);
}

std::string PropertyStore::Value(const std::string& name) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = values_.find(name);
  return found == values_.end() ? "" : found->second;
}

bool PropertyStore::Set(const std::string& name, const std::string& value) {
  const std::lock_guard<std::mutex> turn(set_mutex_);
  if (!Change(name, value)) {
    LOG(WARNING) << "cannot set property \"" << name << "\" to \"" << value << "\"";
    return false;
  }
  if (android::base::StartsWith(name, "persist.") && !WriteBack(name, value)) {
    PLOG(ERROR) << kPersistentFile;
  }
  return true;
}

bool PropertyStore::Change(const std::string& name, const std::string& value) {
  const bool read_only = android::base::StartsWith(name, "ro.");
  const std::string line = name + "=" + value;
  const auto property = Parse(line);  // as the next start has it
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!property || property->first != name || IsComment(line) ||
      line.find('\n') != std::string::npos || (!read_only && value.size() >= kMaxValueBytes) ||
      (read_only && values_.count(name) != 0)) {
    return false;
  }
  values_[name] = property->second;
  return true;
}

void PropertyStore::Load(const char* path) {
  const std::vector<std::string> lines = ReadLines(path);
  for (size_t i = 0; i < lines.size(); ++i) {
    if (IsComment(lines[i])) continue;
    if (const auto property = Parse(lines[i])) {
      values_[property->first] = property->second;
    } else {
      LOG(WARNING) << path << ":" << i + 1 << ": no name=value: " << lines[i];
    }
  }
}

}  // namespace bthal
