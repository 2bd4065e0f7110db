#pragma once

#include <nlohmann/json_fwd.hpp>

namespace bthalctl {

// What a report says in one sentence, from its history, transport and crashes: see MakeReport().
nlohmann::json VerdictOf(const nlohmann::json& report);

}  // namespace bthalctl
