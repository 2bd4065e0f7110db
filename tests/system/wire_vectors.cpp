#include "system/wire_vectors.h"

#include <map>
#include <sstream>
#include <stdexcept>

#include "support/temp_dir.h"

namespace test {
namespace {

WireStep ParseStep(std::string word, const std::map<std::string, Bytes>& packets, int speed) {
  WireStep step;
  step.speed = speed;
  if (const size_t at = word.find('?'); at != std::string::npos) {
    step.status = ParseHex(word.substr(at + 1)).at(0);
    word.erase(at);
  }
  if (word.back() == '!') {
    step.awaited = false;
    word.pop_back();
  }
  step.name = word;
  step.packet = packets.at(word);
  return step;
}

// Words up to the end of the line.
std::vector<WireStep> ParseSteps(std::istream& in, const std::map<std::string, Bytes>& packets) {
  std::vector<WireStep> steps;
  int speed = 0;
  for (std::string word; in >> word;) {
    if (word[0] == '@') {
      speed = std::stoi(word.substr(1));
    } else {
      steps.push_back(ParseStep(word, packets, speed));
    }
  }
  return steps;
}

}  // namespace

WireVectors LoadWireVectors() {
  std::map<std::string, Bytes> packets;
  std::map<std::string, std::string> files;
  WireVectors vectors;
  std::istringstream all(LoadData("bringup_wire.txt"));
  for (std::string line; std::getline(all, line);) {
    std::istringstream in(line.substr(0, line.find('#')));
    std::string kind, name, word;
    if (!(in >> kind >> name)) continue;
    if (kind == "packet") {
      std::getline(in, word);
      packets[name] = ParseHex(word);
    } else if (kind == "file") {
      std::string& content = files[name];
      while (in >> word) content.append(packets.at(word).begin() + 1, packets.at(word).end());
    } else if (kind == "bringup") {
      WireVector vector;
      vector.chip = ParseHex(name).at(0);
      std::string fast, file, colon;
      in >> fast >> file >> colon;
      vector.name = name + " " + fast + " " + file;
      vector.fast_download = fast == "on";
      vector.patch_file = files.at(file);
      vector.steps = ParseSteps(in, packets);
      vectors.bring_ups.push_back(vector);
    } else if (kind == "attach") {
      vectors.attach = ParseSteps(in, packets);
    } else if (kind == "close") {
      vectors.close = ParseSteps(in, packets);
    } else {
      throw std::runtime_error("not a vector: " + line);
    }
  }
  if (vectors.bring_ups.empty() || vectors.attach.empty() || vectors.close.empty()) {
    throw std::runtime_error("no bring-ups");
  }
  return vectors;
}

}  // namespace test
