// Unix sockets at paths of any length.
#pragma once

#include <android-base/unique_fd.h>

#include <string>

namespace bthalctl {

// A listening socket at path, readable and writable for its user only; replaces what no program
// listens at any more. Throws Failure.
::android::base::unique_fd ListenUnix(const std::string& path, int type);
// Invalid with errno set when nobody listens at path.
::android::base::unique_fd ConnectUnix(const std::string& path, int type);

}  // namespace bthalctl
