#pragma once

namespace bthalctl {

// The style sheet of a report's page: light and dark, screen and paper.
extern const char kPageStyle[];

}  // namespace bthalctl
