// Unix sockets of whole messages, at paths of any length.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <string>

namespace zvk {

// A listening, non-blocking socket at path, in place of what is there; only users whom mode lets
// write to it can connect. path's folder exists. Throws std::runtime_error with a one-line reason.
::android::base::unique_fd ListenUnix(const std::string& path, mode_t mode);
// Blocking. Invalid, with errno set, when nobody listens at path.
::android::base::unique_fd ConnectUnix(const std::string& path);

}  // namespace zvk
