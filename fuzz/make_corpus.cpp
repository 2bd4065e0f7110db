// Writes the vectors below tests/data/ as seeds, a file each. Arguments: kind, folder.
#include <cstdio>
#include <filesystem>
#include <string>

#include "support/temp_dir.h"
#include "support/vectors.h"

namespace {

std::string ToText(const test::Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

std::string Framed(const std::string& type, const std::string& packet) {
  return ToText(test::ParseHex(type)) + ToText(test::ParseHex(packet));
}

std::string EventsOf(const std::string& steps) {
  std::string events;
  for (const std::string& step : test::SplitTrimmed(steps, ';')) {
    if (step.rfind("event ", 0) != 0) continue;
    events += ToText(test::ParseHex(step.substr(6)));
  }
  return events;
}

// The seed that one vector of this file gives.
std::string Seed(const std::string& file, const test::Vector& v) {
  if (file == "h4_packets.txt") return Framed(v.fields[0], v.fields[1]);
  if (file == "flow_control.txt") return EventsOf(v.fields[0]);
  if (file == "config.txt") return test::ParseText(v.fields[0]).value_or("");
  if (file == "firmware.txt") return v.fields[2] == "-" ? "" : ToText(test::ParseHex(v.fields[2]));
  return ToText(test::ParseHex(v.fields[0]));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s framer|flow_control|config|firmware|co_processor FOLDER\n", argv[0]);
    return 2;
  }
  const std::string kind = argv[1], folder = argv[2];
  std::vector<std::string> files = {kind + ".txt"};
  if (kind == "framer") files = {"h4_packets.txt", "h4_streams.txt", "h4_garbage.txt"};
  if (kind == "co_processor") files = {"qvr_messages.txt"};
  std::filesystem::create_directories(folder);
  for (const std::string& file : files) {
    for (const test::Vector& v : test::LoadVectors(file)) {
      test::WriteFile(folder + "/" + v.name, Seed(file, v));
    }
  }
  return 0;
}
