#include "tools/evidence/crash_list.h"

#include <root_folder/root_folder.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <map>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;

constexpr char kInfoFolder[] = "/data/vendor/ssrdump";
constexpr char kDumpFolder[] = "/data/vendor/ssrdump/coredump";
constexpr char kTombstoneFolder[] = "/data/tombstones";
constexpr char kInfoPrefix[] = "crashinfo_bt_";
constexpr char kTombstonePrefix[] = "tombstone_";
// The longest first: each begins with the last.
constexpr const char* kDumpPrefixes[] = {"coredump_bt_socdump_", "coredump_bt_chredump_",
                                         "coredump_bt_"};
constexpr size_t kMaxInfoBytes = 64 << 10;
constexpr size_t kMaxTombstoneBytes = 4 << 20;

// Names in a folder that begin with prefix; those of folders are left out.
std::vector<std::string> Names(const std::string& folder, const std::string& prefix) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(root_folder::Resolve(folder), error), end;
       !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.rfind(prefix, 0) == 0 && !entry->is_directory(error)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What stands between a prefix and an extension; the whole rest where the extension is another.
std::string Timestamp(const std::string& name, const std::string& prefix,
                      const std::string& extension) {
  const std::string rest = name.substr(prefix.size());
  const bool ends = rest.size() > extension.size() &&
                    rest.compare(rest.size() - extension.size(), std::string::npos, extension) == 0;
  return ends ? rest.substr(0, rest.size() - extension.size()) : rest;
}

Crash::File FileAt(const std::string& path) {
  struct stat status = {};
  const bool there = stat(path.c_str(), &status) == 0;
  return {path, there ? static_cast<uint64_t>(status.st_size) : 0};
}

SystemTime TimeOfFile(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return {};
  return std::chrono::system_clock::from_time_t(status.st_mtime);
}

Crash ReadCrash(const std::string& path, bool tombstone) {
  Crash crash;
  crash.files.push_back(FileAt(path));
  try {
    const std::string text = ReadEvidence(path, tombstone ? kMaxTombstoneBytes : kMaxInfoBytes);
    if (tombstone) {
      crash.tombstone = ParseTombstone(text);
      crash.time = crash.tombstone->time;
    } else {
      crash.info = ParseCrashInfo(text);
      crash.time = crash.info->time;
    }
  } catch (const Failure& failure) {
    crash.mistake = failure.what();
    crash.time = TimeOfFile(path);
  }
  return crash;
}

}  // namespace

std::vector<Crash> CollectCrashes() {
  std::map<std::string, std::vector<Crash::File>> dumps;  // by timestamp
  for (const std::string& name : Names(kDumpFolder, "coredump_bt_")) {
    for (const char* prefix : kDumpPrefixes) {
      if (name.rfind(prefix, 0) != 0) continue;
      dumps[Timestamp(name, prefix, ".bin")].push_back(
          FileAt(root_folder::Resolve(std::string(kDumpFolder) + "/" + name)));
      break;
    }
  }

  std::vector<Crash> crashes;
  for (const std::string& name : Names(kInfoFolder, kInfoPrefix)) {
    Crash crash = ReadCrash(root_folder::Resolve(std::string(kInfoFolder) + "/" + name), false);
    if (const auto own = dumps.find(Timestamp(name, kInfoPrefix, ".txt")); own != dumps.end()) {
      crash.files.insert(crash.files.end(), own->second.begin(), own->second.end());
      dumps.erase(own);
    }
    crashes.push_back(std::move(crash));
  }
  for (auto& [timestamp, files] : dumps) {
    Crash crash;
    crash.time = ParseTimestamp(timestamp).value_or(TimeOfFile(files.front().path));
    crash.mistake = "a dump without a crash-information file";
    crash.files = std::move(files);
    crashes.push_back(std::move(crash));
  }
  for (const std::string& name : Names(kTombstoneFolder, kTombstonePrefix)) {
    crashes.push_back(
        ReadCrash(root_folder::Resolve(std::string(kTombstoneFolder) + "/" + name), true));
  }
  for (Crash& crash : crashes) {
    std::sort(crash.files.begin() + 1, crash.files.end(),
              [](const auto& a, const auto& b) { return a.path < b.path; });
  }
  // Of one second: what was written first comes first.
  std::stable_sort(crashes.begin(), crashes.end(),
                   [](const Crash& a, const Crash& b) { return a.time < b.time; });
  return crashes;
}

std::string Describe(const Crash& crash) {
  const time_t seconds = std::chrono::system_clock::to_time_t(crash.time);
  tm local = {};
  localtime_r(&seconds, &local);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  std::string text = Paint(Colour::kGrey, date) + "  ";
  if (crash.info) {
    text += Paint(Colour::kRed, Printable(crash.info->reason)) + ", crash " +
            std::to_string(crash.info->count) + " of its process\n";
  } else if (crash.tombstone) {
    const Tombstone& tombstone = *crash.tombstone;
    text += Printable(tombstone.signal) + " in " +
            Paint(Colour::kRed, Printable(tombstone.function)) + ", process " +
            std::to_string(tombstone.pid) + ", thread " + std::to_string(tombstone.tid) + " \"" +
            Printable(tombstone.thread) + "\"\n";
    if (!tombstone.message.empty()) text += "    " + Printable(tombstone.message) + "\n";
  } else {
    text += Paint(Colour::kYellow, Printable(crash.mistake)) + "\n";
  }
  for (const Crash::File& file : crash.files) {
    text += "    " + Printable(file.path) + "  " + HumanBytes(file.bytes) + "\n";
  }
  return text;
}

}  // namespace bthalctl
