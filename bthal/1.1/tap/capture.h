// Captures: what passes the tap, written in a file format to whoever asks for it.
#pragma once

#include <string>
#include <vector>

#include "tap/capture_filter.h"

namespace android::hardware::bluetooth::tap {

// What somebody asks a capture to be.
struct CaptureRequest {
  std::string format;
  bool with_bring_up = false;
  CaptureFilter filter;
};

// One line that tells which words there are.
extern const char kCaptureHelp[];

// Reads the words behind "capture": a format, then any of "bring-up" and a filter's. Returns
// whether all of them are known.
bool ParseCaptureRequest(const std::vector<std::string>& words, CaptureRequest* request);

// Starts to write to fd, a pipe or a socket, on a thread of its own, until the reader closes it or
// takes nothing for a minute while there is something to take. The caller keeps fd, whose flags
// stay as they are. Returns an empty text, or why nothing is written.
std::string StartCapture(int fd, CaptureRequest request);

// The property whose value "FORMAT:SIZE:COUNT" keeps a capture on disk: see docs/captures.md.
extern const char kCaptureProperty[];

// Captures for the life of the process, each bring-up included, into so many files of that size. A
// setting that is none costs one error line.
void StartCaptureOnDisk(const std::string& setting);

}  // namespace android::hardware::bluetooth::tap
