#include "tools/hci/heard_peers.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <root_folder/root_folder.h>
#include <unistd.h>

#include <algorithm>

namespace bthalctl {
namespace {

constexpr char kPath[] = "/run/bthal/heard_peers";

// Names come from the air: a shell is not offered one that is more than a line of text.
bool IsPlain(const std::string& name) {
  return !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
  });
}

}  // namespace

void KeepHeardPeers(const std::vector<std::string>& peers) {
  std::string text;
  for (const std::string& peer : peers) {
    if (IsPlain(peer)) text.append(peer).append("\n");
  }
  const std::string path = root_folder::Resolve(kPath), fresh = path + ".new";
  unlink(fresh.c_str());  // of a program that died, or a link that would be followed
  if (::android::base::WriteStringToFile(text, fresh, 0640, getuid(), getgid())) {
    rename(fresh.c_str(), path.c_str());
  }
}

std::vector<std::string> HeardPeers() {
  std::string text;
  ::android::base::ReadFileToString(root_folder::Resolve(kPath), &text);
  std::vector<std::string> peers = ::android::base::Split(text, "\n");
  peers.erase(std::remove_if(peers.begin(), peers.end(),
                             [](const std::string& peer) { return !IsPlain(peer); }),
              peers.end());
  return peers;
}

}  // namespace bthalctl
