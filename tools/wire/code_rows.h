// The one table of codes: commands, events, errors, and the PDUs of the protocols above, each with
// its name and with what stands behind it (the language: see fields.h).
#pragma once

#include <cstdint>
#include <iterator>

namespace wire {

struct CodeRow {
  uint16_t code;
  const char* name;
  const char* fields = "";   // of the parameters
  const char* returns = "";  // of a command's answer, behind its status
};

enum class CodeKind {
  kCommand,
  kEvent,
  kLeEvent,
  kVendorEvent,
  kQualityReport,
  kStatus,
  kAtt,
  kAttError,
  kSmp,
  kSignalling
};
// Goes with the type of a quality report that has the longer layout.
constexpr uint16_t kLongQualityReport = 0x100;

// Null for a code that is not listed.
const CodeRow* FindRow(CodeKind kind, uint16_t code);

// Rows in the order of their codes.
struct CodeRows {
  const CodeRow* first;
  const CodeRow* last;

  const CodeRow* begin() const { return first; }
  const CodeRow* end() const { return last; }
};
CodeRows RowsOf(CodeKind kind);

CodeRows CommandRows();
CodeRows EventRows();
CodeRows LeEventRows();
CodeRows VendorEventRows();
CodeRows QualityReportRows();
CodeRows StatusRows();
CodeRows AttRows();
CodeRows AttErrorRows();
CodeRows SmpRows();
CodeRows SignallingRows();

}  // namespace wire
