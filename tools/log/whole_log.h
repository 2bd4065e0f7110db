#pragma once

#include <functional>
#include <string>

namespace bthalctl {

// Hands over the lines, without their ends, of the log at path and before them those of the older
// file beside it, as far as there are any.
void ReadWholeLog(const std::string& path, const std::function<void(const std::string&)>& line);

}  // namespace bthalctl
