#include "tools/evidence/crash_list.h"

#include <android-base/parseint.h>
#include <root_folder/root_folder.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/base/failure.h"
#include "tools/base/terminal.h"
#include "tools/evidence/evidence_file.h"
#include "tools/log/log_line.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr char kInfoFolder[] = "/data/vendor/ssrdump";
constexpr char kDumpFolder[] = "/data/vendor/ssrdump/coredump";
constexpr char kTombstoneFolder[] = "/data/tombstones";

// The files of a folder whose names begin with prefix.
std::vector<fs::path> Files(const std::string& folder, const std::string& prefix) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::directory_iterator entry(root_folder::Resolve(folder), error), end;
       !error && entry != end; entry.increment(error)) {
    const bool fits = entry->path().filename().string().rfind(prefix, 0) == 0;
    if (fits && !entry->is_directory(error)) files.push_back(entry->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

Json FileEntry(const fs::path& path) {
  struct stat status = {};
  const bool there = stat(path.c_str(), &status) == 0;
  return {{"path", path.string()}, {"bytes", there ? status.st_size : 0}};
}

// What a file's name has behind its prefix: the prefixes have no digits.
std::string TimestampIn(const fs::path& path) {
  const std::string name = path.stem().string();
  return name.substr(std::min(name.size(), name.find_first_of("0123456789")));
}

time_t TimeOfFile(const fs::path& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

Json Entry(const fs::path& path, Json (*parse)(const std::string& text)) {
  Json crash;
  try {
    crash = parse(ReadEvidence(path));
  } catch (const Failure& failure) {
    crash = {{"mistake", failure.what()}, {"time", TimeOfFile(path)}};
  }
  crash["files"] = Json::array({FileEntry(path)});
  return crash;
}

std::string Describe(const Json& crash) {
  const auto text = [&crash](const char* key) {
    return Printable(crash[key].get_ref<const std::string&>());
  };
  std::string out = Paint(Colour::kGrey, LocalTimeText(crash["time"])) + "  ";
  if (crash.contains("reason")) {
    out += Paint(Colour::kRed, text("reason")) + ", crash " + crash["count"].dump() +
           " of its process\n";
  } else if (crash.contains("signal")) {
    out += text("signal") + " in " + Paint(Colour::kRed, text("function")) + ", process " +
           crash["pid"].dump() + ", thread " + crash["tid"].dump() + " \"" + text("thread") +
           "\"\n";
    const std::string message = text("message");
    if (!message.empty()) out += "    " + message + "\n";
  } else {
    out += Paint(Colour::kYellow, text("mistake")) + "\n";
  }
  for (const Json& file : crash["files"]) {
    out += "    " + Printable(file["path"].get<std::string>()) + "  " + HumanBytes(file["bytes"]) +
           "\n";
  }
  return out;
}

}  // namespace

Json CollectCrashes() {
  std::map<std::string, Json> dumps;  // by timestamp
  for (const fs::path& path : Files(kDumpFolder, "coredump_bt_")) {
    dumps[TimestampIn(path)].push_back(FileEntry(path));
  }
  std::vector<Json> crashes;
  for (const fs::path& path : Files(kInfoFolder, "crashinfo_bt_")) {
    crashes.push_back(Entry(path, ParseCrashInfo));
    if (const auto own = dumps.find(TimestampIn(path)); own != dumps.end()) {
      for (Json& dump : own->second) crashes.back()["files"].push_back(std::move(dump));
      dumps.erase(own);
    }
  }
  for (const auto& [timestamp, files] : dumps) {
    const auto time = ParseTimestamp(timestamp);
    crashes.push_back({{"time", time.value_or(TimeOfFile(files[0]["path"].get<std::string>()))},
                       {"mistake", "a dump without a crash-information file"},
                       {"files", files}});
  }
  for (const fs::path& path : Files(kTombstoneFolder, "tombstone_")) {
    crashes.push_back(Entry(path, ParseTombstone));
  }
  // Within one second what was written first stays first.
  std::stable_sort(crashes.begin(), crashes.end(),
                   [](const Json& a, const Json& b) { return a["time"] < b["time"]; });
  return crashes;
}

std::string CrashTitle(const Json& crash) {
  if (crash.contains("reason")) return crash["reason"];
  if (crash.contains("signal")) {
    return crash.at("signal").get<std::string>() + " in " + crash.at("function").get<std::string>();
  }
  return crash.value("mistake", "");
}

std::string DescribeCrashes(const Json& crashes, time_t since) {
  std::string text;
  for (const Json& crash : crashes) {
    if (crash["time"].get<time_t>() >= since) text += Describe(crash);
  }
  return text;
}

}  // namespace bthalctl
