#include "tools/evidence/activity_report.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <sstream>

#include "tools/base/failure.h"
#include "tools/evidence/evidence_file.h"

namespace bthalctl {
namespace {

using ::android::base::ParseUint;
using ::android::base::Split;

enum class Table { kNone, kDevices, kWakeLocks, kAcl, kAdvertising };

// The table whose title this line is.
Table TableOf(const std::string& line) {
  const struct {
    const char* title;
    Table table;
  } titles[] = {
      {" 1. Connected devices Report :", Table::kDevices},
      {" 2. BtHal Tx Wakelock Report :", Table::kWakeLocks},
      {" 3. BtHal ACL RX Data Report :", Table::kAcl},
      {" 4. BLE Advertising Report :", Table::kAdvertising},
  };
  for (const auto& title : titles) {
    if (line == title.title) return title.table;
  }
  return Table::kNone;
}

bool IsHeader(const std::string& line) {
  return line.rfind("handle, ", 0) == 0 || line.rfind("start_timestamp, ", 0) == 0;
}

// Returns whether the line has the form of a row of that table.
bool AddRow(Table table, const std::string& line, ActivityReport* report) {
  const std::vector<std::string> fields = Split(line, ", ");
  // Split cuts at each of its characters: an empty field stands between ',' and ' '.
  std::vector<std::string> row;
  for (size_t i = 0; i < fields.size(); i += 2) row.push_back(fields[i]);

  if (table == Table::kDevices) {
    ActivityReport::Device device;
    if (row.size() != 3 || !ParseUint(row[0], &device.handle)) return false;
    device.address = row[1];
    device.since = row[2];
    report->devices.push_back(device);
    return true;
  }
  ActivityReport::Period period;
  const bool has_handle = table == Table::kAcl;
  if (row.size() != (has_handle ? 5 : 4)) return false;
  period.start = row[0];
  period.end = row[1];
  if (has_handle && !ParseUint(row[2], &period.handle)) return false;
  if (!ParseUint(row[row.size() - 2], &period.milliseconds) ||
      !ParseUint(row[row.size() - 1], &period.count)) {
    return false;
  }
  (table == Table::kWakeLocks ? report->wake_locks
   : has_handle               ? report->acl
                              : report->advertising)
      .push_back(period);
  return true;
}

}  // namespace

ActivityReport ParseActivityReport(const std::string& section) {
  ActivityReport report;
  Table table = Table::kNone;
  std::istringstream lines(section);
  for (std::string line; std::getline(lines, line);) {
    if (const Table next = TableOf(line); next != Table::kNone) {
      table = next;
    } else if (line.empty() || line[0] == '*' || line[0] == '=' || IsHeader(line)) {
      continue;
    } else if (table == Table::kNone || !AddRow(table, line, &report)) {
      throw Failure("the activity report has a line that does not belong there: " +
                    Printable(line));
    }
  }
  return report;
}

}  // namespace bthalctl
