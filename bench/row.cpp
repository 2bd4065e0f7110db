#include "row.h"

#include <sys/utsname.h>
#include <time.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

namespace bench {
namespace {

bool prints_json = false;

std::string Quoted(const std::string& text) { return nlohmann::json(text).dump(); }

std::string Rounded(double value, int places) {
  const double scale = std::pow(10, places);
  return nlohmann::json(std::round(value * scale) / scale).dump();
}

// "p50", "p99.9"
std::string PercentileName(double percent) {
  char name[16];
  snprintf(name, sizeof name, "p%g", percent);
  return name;
}

std::string MachineKind() {
  std::string model = "processors of an unknown model";
  bool is_virtual = false;
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    const size_t colon = line.find(": ");
    if (line.compare(0, 10, "model name") == 0) model = line.substr(colon + 2);
    if (line.compare(0, 5, "flags") == 0) is_virtual = line.find(" hypervisor") != line.npos;
  }
  utsname system{};
  uname(&system);
  const std::string release = system.release;
  const size_t patch = release.find('.', release.find('.') + 1);
  return std::to_string(std::thread::hardware_concurrency()) + " x " + model +
         (is_virtual ? ", virtual" : "") + ", Linux " + release.substr(0, patch);
}

std::string Today() {
  const time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  char date[16];
  strftime(date, sizeof date, "%Y-%m-%d", &utc);
  return date;
}

}  // namespace

void TakeSwitches(int* argc, char** argv) {
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    if (strcmp(argv[i], "--json") == 0) {
      prints_json = true;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argv[kept] = nullptr;
  *argc = kept;
}

void Say(const std::string& line) {
  fprintf(prints_json ? stderr : stdout, "%s\n", line.c_str());
  fflush(nullptr);
}

Row& Row::Add(const char* key, const std::string& value) {
  AddText(key, value.find(' ') == value.npos ? value : Quoted(value));
  AddJson(key, Quoted(value));
  return *this;
}

Row& Row::Add(const char* key, size_t value) {
  AddText(key, std::to_string(value));
  AddJson(key, std::to_string(value));
  return *this;
}

Row& Row::Add(const char* key, double value, int places) {
  AddText(key, Rounded(value, places));
  AddJson(key, Rounded(value, places));
  return *this;
}

Row& Row::Add(const std::string& key, const Distribution& times) {
  std::string percentiles;
  for (const double percent : Distribution::kPercents) {
    const std::string name = PercentileName(percent), value = Rounded(times.At(percent), 1);
    if (percent == 50 || percent == 99) AddText(key + "_" + name + "_us", value);
    percentiles += (percentiles.empty() ? "" : ",") + Quoted(name) + ":" + value;
  }
  AddJson(key + "_us", "{" + percentiles + "}");
  return *this;
}

void Row::Print() const {
  if (prints_json) {
    static const std::string where_and_when =
        "\"machine\":" + Quoted(MachineKind()) + ",\"date\":" + Quoted(Today());
    printf("{%s,%s}\n", json_.c_str(), where_and_when.c_str());
  } else {
    printf("%s\n", text_.c_str());
  }
  fflush(stdout);
}

void Row::AddText(const std::string& key, const std::string& value) {
  text_ += (text_.empty() ? "" : " ") + key + "=" + value;
}

void Row::AddJson(const std::string& key, const std::string& value) {
  json_ += (json_.empty() ? "" : ",") + Quoted(key) + ":" + value;
}

}  // namespace bench
