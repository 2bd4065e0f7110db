// Unix sockets at paths of any length.
#pragma once

#include <android-base/unique_fd.h>

#include <string>

#include "tools/base/failure.h"

namespace bthalctl {

// Another program listens at the path.
struct PathInUse : Failure {
  using Failure::Failure;
};

// A listening socket at path, readable and writable for its user only; replaces a socket that no
// program listens at any more. Of several programs that ask at the same time one gets it, the
// others get PathInUse. Throws Failure.
::android::base::unique_fd ListenUnix(const std::string& path, int type);
// Invalid with errno set when nobody listens at path.
::android::base::unique_fd ConnectUnix(const std::string& path, int type);

}  // namespace bthalctl
