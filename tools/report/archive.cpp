#include "tools/report/archive.h"

#include <archive.h>
#include <archive_entry.h>

#include <filesystem>
#include <memory>

#include "tools/base/failure.h"

namespace bthalctl {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kMostBytes = 256 << 20;
constexpr int kMostEntries = 100'000;

using ArchiveReader = std::unique_ptr<archive, int (*)(archive*)>;

bool IsInside(const fs::path& path) {
  if (path.empty() || path.is_absolute()) return false;
  for (const fs::path& part : path) {
    if (part == "..") return false;
  }
  return true;
}

// The nearest folder to the top that has what a handset's root has.
std::string FindRoot(const std::string& folder, const std::string& name) {
  std::string best;
  size_t best_depth = SIZE_MAX;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_directory()) continue;
    const std::string own = entry.path().filename();
    if (own != "data" && own != "run") continue;
    const fs::path root = entry.path().parent_path();
    const auto depth = static_cast<size_t>(std::distance(root.begin(), root.end()));
    if (depth < best_depth) {
      best_depth = depth;
      best = root;
    }
  }
  if (best.empty()) throw Failure(name + ": it has no folder \"data\" or \"run\" of a handset");
  return best;
}

}  // namespace

std::string UnpackHandsetFiles(const std::string& name, const std::string& folder) {
  const ArchiveReader reader(archive_read_new(), archive_read_free);
  archive_read_support_filter_all(reader.get());
  // Not all: some formats would read any text.
  archive_read_support_format_zip(reader.get());
  archive_read_support_format_tar(reader.get());
  const auto fail = [&] {
    const char* const reason = archive_error_string(reader.get());  // not every mistake has one
    throw Failure(name + ": " + (reason != nullptr ? reason : "it is damaged"));
  };
  if (archive_read_open_filename(reader.get(), name.c_str(), 1 << 16) != ARCHIVE_OK) fail();
  int64_t bytes = 0;
  int entries = 0;
  for (archive_entry* entry = nullptr;;) {
    const int result = archive_read_next_header(reader.get(), &entry);
    if (result == ARCHIVE_EOF) break;
    if (result < ARCHIVE_WARN) fail();
    if (++entries > kMostEntries) throw Failure(name + ": it has too many entries");
    const char* const path = archive_entry_pathname(entry);
    const auto type = archive_entry_filetype(entry);
    if (path == nullptr || !IsInside(path) || (type != AE_IFREG && type != AE_IFDIR)) continue;
    const fs::path target = fs::path(folder) / path;
    std::error_code error;
    fs::create_directories(type == AE_IFDIR ? target : target.parent_path(), error);
    if (error) throw Failure(name + ": " + path + ": " + error.message());
    if (type == AE_IFDIR) continue;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(target.c_str(), "wbe"),
                                                               std::fclose);
    if (file == nullptr) throw Failure(WithErrno(name + ": " + path));
    char buffer[1 << 16];
    for (la_ssize_t n; (n = archive_read_data(reader.get(), buffer, sizeof buffer)) != 0;) {
      if (n < 0) fail();
      bytes += n;
      if (bytes > kMostBytes) throw Failure(name + ": more than 256 MB are in it");
      if (std::fwrite(buffer, 1, static_cast<size_t>(n), file.get()) != static_cast<size_t>(n)) {
        throw Failure(WithErrno(name + ": " + path));
      }
    }
  }
  return FindRoot(folder, name);
}

}  // namespace bthalctl
