// Where log lines go: stderr, and a file once a daemon has opened one. If stderr is a stream to
// systemd's journal (JOURNAL_STREAM), its lines begin with "<LEVEL>" in place of time and process.
#pragma once

#include <string>

namespace bthal::log {

// Lines also go to the file at path from now on, behind what it holds. At kMaxFileBytes it becomes
// path + ".1", in place of an older one, and a new file begins; it is made again when it is
// removed. False with errno on failure. A link at path is not followed. Where standard
// error is a pipe or a socket whose reader takes nothing for a second, lines that find no room in
// it are lost there.
constexpr size_t kMaxFileBytes = 1 << 20;
bool OpenFile(const std::string& path);

// The message of the fatal line that is ending this process; empty before there is one. For the
// handler of the signal that follows it: it does not lock.
const char* AbortMessage();

}  // namespace bthal::log
