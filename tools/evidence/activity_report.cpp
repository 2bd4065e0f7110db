#include "tools/evidence/activity_report.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <cctype>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/base/failure.h"
#include "tools/evidence/evidence_file.h"

namespace bthalctl {
namespace {

using Json = nlohmann::json;

struct Table {
  const char* title;
  const char* name;
  std::vector<std::string> columns;
};

const Table* TableOf(const std::string& title) {
  static const std::vector<Table> tables = {
      {" 1. Connected devices Report :", "devices", {"handle", "address", "since"}},
      {" 2. BtHal Tx Wakelock Report :", "wake_locks", {"start", "end", "ms", "count"}},
      {" 3. BtHal ACL RX Data Report :", "acl_received", {"start", "end", "handle", "ms", "count"}},
      {" 4. BLE Advertising Report :", "advertising", {"start", "end", "ms", "count"}},
  };
  for (const Table& table : tables) {
    if (title == table.title) return &table;
  }
  return nullptr;
}

// Empty when line is no row of that table.
Json Row(const Table& table, const std::string& line) {
  const std::vector<std::string> fields = ::android::base::Split(line, ",");
  Json row;
  if (fields.size() != table.columns.size()) return row;
  for (size_t i = 0; i < fields.size(); ++i) {
    std::string field = ::android::base::Trim(fields[i]);
    const std::string& column = table.columns[i];
    uint32_t number = 0;
    if (column == "address") {
      for (char& c : field) c = static_cast<char>(std::toupper(c));
    }
    if (column == "address" || column == "start" || column == "end" || column == "since") {
      row[column] = field;
    } else if (::android::base::ParseUint(field, &number,
                                          column == "handle" ? UINT16_MAX : UINT32_MAX)) {
      row[column] = number;
    } else {
      return Json();
    }
  }
  return row;
}

}  // namespace

Json ReadActivityTables(const std::string& section) {
  Json tables = {{"devices", Json::array()},
                 {"wake_locks", Json::array()},
                 {"acl_received", Json::array()},
                 {"advertising", Json::array()}};
  const Table* table = nullptr;
  for (const std::string& line : ::android::base::Split(section, "\n")) {
    if (const Table* const next = TableOf(line); next != nullptr) {
      table = next;
    } else if (!line.empty() && std::isdigit(static_cast<unsigned char>(line[0])) != 0) {
      // Rules, frames and the names of the columns begin otherwise.
      const Json row = table == nullptr ? Json() : Row(*table, line);
      if (row.empty()) throw Failure("no row of the activity report: " + Printable(line));
      tables[table->name].push_back(row);
    }
  }
  return tables;
}

}  // namespace bthalctl
