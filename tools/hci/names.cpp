#include "tools/hci/names.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace bthalctl {
namespace {

struct Row {
  uint16_t code;
  const char* name;
};

constexpr Row kCommands[] = {
    {0x0401, "Inquiry"},
    {0x0402, "Inquiry Cancel"},
    {0x0405, "Create Connection"},
    {0x0406, "Disconnect"},
    {0x0409, "Accept Connection Request"},
    {0x040A, "Reject Connection Request"},
    {0x0411, "Authentication Requested"},
    {0x0413, "Set Connection Encryption"},
    {0x0419, "Remote Name Request"},
    {0x041B, "Read Remote Supported Features"},
    {0x041D, "Read Remote Version Information"},
    {0x0803, "Sniff Mode"},
    {0x080F, "Write Default Link Policy Settings"},
    {0x0C01, "Set Event Mask"},
    {0x0C03, "Reset"},
    {0x0C05, "Set Event Filter"},
    {0x0C12, "Delete Stored Link Key"},
    {0x0C13, "Write Local Name"},
    {0x0C14, "Read Local Name"},
    {0x0C16, "Write Connection Accept Timeout"},
    {0x0C18, "Write Page Timeout"},
    {0x0C1A, "Write Scan Enable"},
    {0x0C23, "Read Class of Device"},
    {0x0C24, "Write Class of Device"},
    {0x0C25, "Read Voice Setting"},
    {0x0C26, "Write Voice Setting"},
    {0x0C2D, "Read Transmit Power Level"},
    {0x0C2E, "Read Synchronous Flow Control Enable"},
    {0x0C2F, "Write Synchronous Flow Control Enable"},
    {0x0C31, "Set Controller To Host Flow Control"},
    {0x0C33, "Host Buffer Size"},
    {0x0C35, "Host Number Of Completed Packets"},
    {0x0C38, "Read Number Of Supported IAC"},
    {0x0C39, "Read Current IAC LAP"},
    {0x0C45, "Write Inquiry Mode"},
    {0x0C52, "Write Extended Inquiry Response"},
    {0x0C56, "Write Simple Pairing Mode"},
    {0x0C58, "Read Inquiry Response Transmit Power Level"},
    {0x0C63, "Set Event Mask Page 2"},
    {0x0C6D, "Write LE Host Support"},
    {0x0C7A, "Write Secure Connections Host Support"},
    {0x1001, "Read Local Version Information"},
    {0x1002, "Read Local Supported Commands"},
    {0x1003, "Read Local Supported Features"},
    {0x1004, "Read Local Extended Features"},
    {0x1005, "Read Buffer Size"},
    {0x1009, "Read BD_ADDR"},
    {0x100B, "Read Local Supported Codecs"},
    {0x1405, "Read RSSI"},
    {0x1801, "Read Loopback Mode"},
    {0x1802, "Write Loopback Mode"},
    {0x2001, "LE Set Event Mask"},
    {0x2002, "LE Read Buffer Size"},
    {0x2003, "LE Read Local Supported Features"},
    {0x2005, "LE Set Random Address"},
    {0x2006, "LE Set Advertising Parameters"},
    {0x2007, "LE Read Advertising Physical Channel Tx Power"},
    {0x2008, "LE Set Advertising Data"},
    {0x2009, "LE Set Scan Response Data"},
    {0x200A, "LE Set Advertising Enable"},
    {0x200B, "LE Set Scan Parameters"},
    {0x200C, "LE Set Scan Enable"},
    {0x200D, "LE Create Connection"},
    {0x200E, "LE Create Connection Cancel"},
    {0x200F, "LE Read Filter Accept List Size"},
    {0x2010, "LE Clear Filter Accept List"},
    {0x2011, "LE Add Device To Filter Accept List"},
    {0x2013, "LE Connection Update"},
    {0x2014, "LE Set Host Channel Classification"},
    {0x2016, "LE Read Remote Features"},
    {0x2017, "LE Encrypt"},
    {0x2018, "LE Rand"},
    {0x2019, "LE Enable Encryption"},
    {0x201C, "LE Read Supported States"},
    {0x2022, "LE Set Data Length"},
    {0x2023, "LE Read Suggested Default Data Length"},
    {0x2024, "LE Write Suggested Default Data Length"},
    {0x2025, "LE Read Local P-256 Public Key"},
    {0x2029, "LE Clear Resolving List"},
    {0x202A, "LE Read Resolving List Size"},
    {0x202D, "LE Set Address Resolution Enable"},
    {0x202F, "LE Read Maximum Data Length"},
    {0x2031, "LE Set Default PHY"},
    {0x2032, "LE Set PHY"},
    {0x2035, "LE Set Advertising Set Random Address"},
    {0x2036, "LE Set Extended Advertising Parameters"},
    {0x203A, "LE Read Maximum Advertising Data Length"},
    {0x203B, "LE Read Number of Supported Advertising Sets"},
    {0x2041, "LE Set Extended Scan Parameters"},
    {0x2042, "LE Set Extended Scan Enable"},
    {0x2043, "LE Extended Create Connection"},
    {0x204A, "LE Read Periodic Advertiser List Size"},
    {0x204B, "LE Read Transmit Power"},
    {0x204E, "LE Set Privacy Mode"},
    {0x2060, "LE Read Buffer Size V2"},
    {0x2074, "LE Set Host Feature"},
    {0xFC01, "Write BD_ADDR"},
    {0xFC18, "Update Baud Rate"},
    {0xFC27, "Set Sleep Mode"},
    {0xFC2E, "Download Minidriver"},
    {0xFC4C, "Write RAM"},
    {0xFC4E, "Launch RAM"},
    {0xFC79, "Read Verbose Configuration"},
    {0xFD53, "Read Vendor Capabilities"},
    {0xFD5B, "Controller Debug Dump"},
    {0xFD5E, "Set Quality Report"},
    {0xFE72, "Set Download Config"},
};

constexpr Row kEvents[] = {
    {0x01, "Inquiry Complete"},
    {0x02, "Inquiry Result"},
    {0x03, "Connection Complete"},
    {0x04, "Connection Request"},
    {0x05, "Disconnection Complete"},
    {0x06, "Authentication Complete"},
    {0x07, "Remote Name Request Complete"},
    {0x08, "Encryption Change"},
    {0x0B, "Read Remote Supported Features Complete"},
    {0x0C, "Read Remote Version Information Complete"},
    {0x0E, "Command Complete"},
    {0x0F, "Command Status"},
    {0x10, "Hardware Error"},
    {0x12, "Role Change"},
    {0x13, "Number Of Completed Packets"},
    {0x14, "Mode Change"},
    {0x19, "Loopback Command"},
    {0x1A, "Data Buffer Overflow"},
    {0x1B, "Max Slots Change"},
    {0x2C, "Synchronous Connection Complete"},
    {0x2F, "Extended Inquiry Result"},
    {0x30, "Encryption Key Refresh Complete"},
    {0x3E, "LE Meta"},
    {0xFF, "Vendor"},
};

constexpr Row kLeEventNames[] = {
    {0x01, "LE Connection Complete"},
    {0x02, "LE Advertising Report"},
    {0x03, "LE Connection Update Complete"},
    {0x04, "LE Read Remote Features Complete"},
    {0x05, "LE Long Term Key Request"},
    {0x07, "LE Data Length Change"},
    {0x08, "LE Read Local P-256 Public Key Complete"},
    {0x09, "LE Generate DHKey Complete"},
    {0x0A, "LE Enhanced Connection Complete"},
    {0x0C, "LE PHY Update Complete"},
    {0x0D, "LE Extended Advertising Report"},
    {0x11, "LE Scan Timeout"},
    {0x12, "LE Advertising Set Terminated"},
    {0x14, "LE Channel Selection Algorithm"},
};

constexpr Row kVendorEvents[] = {{0x57, "Debug Info"}, {0x58, "Quality Report"}};

constexpr Row kStatuses[] = {
    {0x00, "Success"},
    {0x01, "Unknown HCI Command"},
    {0x02, "Unknown Connection Identifier"},
    {0x03, "Hardware Failure"},
    {0x04, "Page Timeout"},
    {0x05, "Authentication Failure"},
    {0x06, "PIN or Key Missing"},
    {0x07, "Memory Capacity Exceeded"},
    {0x08, "Connection Timeout"},
    {0x09, "Connection Limit Exceeded"},
    {0x0B, "Connection Already Exists"},
    {0x0C, "Command Disallowed"},
    {0x0D, "Rejected: Limited Resources"},
    {0x0E, "Rejected: Security Reasons"},
    {0x11, "Unsupported Feature or Parameter Value"},
    {0x12, "Invalid HCI Command Parameters"},
    {0x13, "Remote User Terminated Connection"},
    {0x15, "Remote Device Powering Off"},
    {0x16, "Connection Terminated By Local Host"},
    {0x1A, "Unsupported Remote Feature"},
    {0x1F, "Unspecified Error"},
    {0x22, "LL Response Timeout"},
    {0x3A, "Controller Busy"},
    {0x3C, "Advertising Timeout"},
    {0x3D, "MIC Failure"},
    {0x3E, "Connection Failed to be Established"},
    {0x42, "Unknown Advertising Identifier"},
};

constexpr Row kAttOpcodes[] = {
    {0x01, "Error Response"},
    {0x02, "Exchange MTU Request"},
    {0x03, "Exchange MTU Response"},
    {0x04, "Find Information Request"},
    {0x05, "Find Information Response"},
    {0x06, "Find By Type Value Request"},
    {0x07, "Find By Type Value Response"},
    {0x08, "Read By Type Request"},
    {0x09, "Read By Type Response"},
    {0x0A, "Read Request"},
    {0x0B, "Read Response"},
    {0x0C, "Read Blob Request"},
    {0x0D, "Read Blob Response"},
    {0x10, "Read By Group Type Request"},
    {0x11, "Read By Group Type Response"},
    {0x12, "Write Request"},
    {0x13, "Write Response"},
    {0x16, "Prepare Write Request"},
    {0x17, "Prepare Write Response"},
    {0x18, "Execute Write Request"},
    {0x19, "Execute Write Response"},
    {0x1B, "Handle Value Notification"},
    {0x1D, "Handle Value Indication"},
    {0x1E, "Handle Value Confirmation"},
    {0x52, "Write Command"},
};

template <size_t n>
const char* Find(const Row (&table)[n], uint16_t code) {
  for (const Row& row : table) {
    if (row.code == code) return row.name;
  }
  return nullptr;
}

std::string HexCode(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

template <size_t n>
std::string NameOr(const Row (&table)[n], uint8_t code, const char* kind) {
  const char* name = Find(table, code);
  return name != nullptr ? name : kind + (" " + HexCode(code, 2));
}

// Letters and digits only, in lower case: "Read BD_ADDR" is "readbdaddr".
std::string Folded(const std::string& text) {
  std::string folded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte)) folded += static_cast<char>(std::tolower(byte));
  }
  return folded;
}

}  // namespace

std::string OpcodeText(uint16_t opcode) {
  const char* name = Find(kCommands, opcode);
  return name != nullptr ? std::string(name) + " (" + HexCode(opcode, 4) + ")"
                         : "command " + HexCode(opcode, 4);
}

std::optional<uint16_t> ParseOpcode(const std::string& text) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str() + 2, &end, 16);
    if (*end != 0 || value == 0 || value > 0xFFFF) return std::nullopt;
    return static_cast<uint16_t>(value);
  }
  const std::string wanted = Folded(text);
  for (const Row& row : kCommands) {
    if (!wanted.empty() && Folded(row.name) == wanted) return row.code;
  }
  return std::nullopt;
}

std::string StatusText(uint8_t status) {
  if (status == 0) return "Success";
  const char* name = Find(kStatuses, status);
  return name != nullptr ? std::string(name) + " (" + HexCode(status, 2) + ")"
                         : "status " + HexCode(status, 2);
}

std::string EventName(uint8_t code) { return NameOr(kEvents, code, "event"); }
std::string LeEventName(uint8_t subevent) { return NameOr(kLeEventNames, subevent, "LE event"); }
std::string VendorEventName(uint8_t subevent) {
  return NameOr(kVendorEvents, subevent, "vendor event");
}
std::string AttName(uint8_t opcode) { return NameOr(kAttOpcodes, opcode, "ATT opcode"); }

std::string CoreVersion(uint8_t version) {
  constexpr const char* kVersions[] = {"1.0b", "1.1", "1.2", "2.0", "2.1", "3.0", "4.0",
                                       "4.1",  "4.2", "5.0", "5.1", "5.2", "5.3", "5.4"};
  return version < std::size(kVersions) ? kVersions[version] : "version " + HexCode(version, 2);
}

}  // namespace bthalctl
