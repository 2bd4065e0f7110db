#include "tools/wire/code_rows.h"

namespace wire {
namespace {

// PDUs of the Attribute Protocol (Core 5.4, 3.F.3.4.8), behind their opcode.
constexpr CodeRow kAttOpcodes[] = {
    {0x01, "Error Response", "att:to x16:handle atterror"},
    {0x02, "Exchange MTU Request", "u16:MTU"},
    {0x03, "Exchange MTU Response", "u16:MTU"},
    {0x04, "Find Information Request", "x16:from x16:to"},
    {0x05, "Find Information Response", "u8(|16-bit|128-bit):UUIDs b"},
    {0x06, "Find By Type Value Request", "x16:from x16:to x16:type b:value"},
    {0x07, "Find By Type Value Response", "[* x16:handle x16:end]"},
    {0x08, "Read By Type Request", "x16:from x16:to uuid:type"},
    {0x09, "Read By Type Response", "u8:entry_size b"},
    {0x0A, "Read Request", "x16:handle"},
    {0x0B, "Read Response", "b:value"},
    {0x0C, "Read Blob Request", "x16:handle u16:offset"},
    {0x0D, "Read Blob Response", "b:value"},
    {0x0E, "Read Multiple Request", "[* x16:handle]"},
    {0x0F, "Read Multiple Response", "b:values"},
    {0x10, "Read By Group Type Request", "x16:from x16:to uuid:type"},
    {0x11, "Read By Group Type Response", "u8:entry_size b"},
    {0x12, "Write Request", "x16:handle b:value"},
    {0x13, "Write Response"},
    {0x16, "Prepare Write Request", "x16:handle u16:offset b:value"},
    {0x17, "Prepare Write Response", "x16:handle u16:offset b:value"},
    {0x18, "Execute Write Request", "u8(cancel|write)"},
    {0x19, "Execute Write Response"},
    {0x1B, "Handle Value Notification", "x16:handle b:value"},
    {0x1D, "Handle Value Indication", "x16:handle b:value"},
    {0x1E, "Handle Value Confirmation"},
    {0x20, "Read Multiple Variable Request", "[* x16:handle]"},
    {0x21, "Read Multiple Variable Response", "[* d16:value]"},
    {0x23, "Multiple Handle Value Notification", "[* x16:handle d16:value]"},
    {0x52, "Write Command", "x16:handle b:value"},
    {0xD2, "Signed Write Command", "x16:handle b:value"},
};

// Errors of the Attribute Protocol (Core 5.4, 3.F.3.4.1.1, and Core Specification Supplement, B.1).
constexpr CodeRow kAttErrors[] = {
    {0x01, "Invalid Handle"},
    {0x02, "Read Not Permitted"},
    {0x03, "Write Not Permitted"},
    {0x04, "Invalid PDU"},
    {0x05, "Insufficient Authentication"},
    {0x06, "Request Not Supported"},
    {0x07, "Invalid Offset"},
    {0x08, "Insufficient Authorization"},
    {0x09, "Prepare Queue Full"},
    {0x0A, "Attribute Not Found"},
    {0x0B, "Attribute Not Long"},
    {0x0C, "Encryption Key Size Too Short"},
    {0x0D, "Invalid Attribute Value Length"},
    {0x0E, "Unlikely Error"},
    {0x0F, "Insufficient Encryption"},
    {0x10, "Unsupported Group Type"},
    {0x11, "Insufficient Resources"},
    {0x12, "Database Out Of Sync"},
    {0x13, "Value Not Allowed"},
    {0xFC, "Write Request Rejected"},
    {0xFD, "Client Characteristic Configuration Descriptor Improperly Configured"},
    {0xFE, "Procedure Already in Progress"},
    {0xFF, "Out of Range"},
};

// PDUs of the Security Manager (Core 5.4, 3.H.3.3), behind their code.
constexpr CodeRow kSmpCodes[] = {
    {0x01, "Pairing Request",
     "io u8(no_OOB_data|OOB_data) x8:authentication u8:key_size x8:initiator_keys "
     "x8:responder_keys"},
    {0x02, "Pairing Response",
     "io u8(no_OOB_data|OOB_data) x8:authentication u8:key_size x8:initiator_keys "
     "x8:responder_keys"},
    {0x03, "Pairing Confirm", "b16"},
    {0x04, "Pairing Random", "b16"},
    {0x05, "Pairing Failed",
     "u8(|passkey_entry_failed|OOB_not_available|authentication_requirements|confirm_value_failed|"
     "pairing_not_supported|encryption_key_size|command_not_supported|unspecified_reason|repeated_"
     "attempts|invalid_parameters|DHKey_check_failed|numeric_comparison_failed|BR/"
     "EDR_pairing_in_progress|cross-transport_not_allowed|key_rejected):reason"},
    {0x06, "Encryption Information", "b16:LTK"},
    {0x07, "Central Identification", "x16:EDIV b8:random"},
    {0x08, "Identity Information", "b16:IRK"},
    {0x09, "Identity Address Information", "taddr"},
    {0x0A, "Signing Information", "b16:CSRK"},
    {0x0B, "Security Request", "x8:authentication"},
    {0x0C, "Pairing Public Key", "b32:X b32:Y"},
    {0x0D, "Pairing DHKey Check", "b16"},
    {0x0E, "Pairing Keypress Notification", "keypress"},
};

// Packets of L2CAP signalling (Core 5.4, 3.A.4), behind their code, identifier and length.
constexpr CodeRow kSignallingCodes[] = {
    {0x01, "Command Reject", "u16(not_understood|MTU_exceeded|invalid_CID) b"},
    {0x02, "Connection Request", "x16:PSM x16:source"},
    {0x03, "Connection Response",
     "x16:destination x16:source "
     "u16(success|pending|PSM_not_supported|security_block|no_resources||invalid_source|source_in_"
     "use):result u16:status"},
    {0x04, "Configuration Request", "x16:destination x16:flags [* x8:option d8]"},
    {0x05, "Configuration Response",
     "x16:source x16:flags "
     "u16(success|unacceptable|rejected|unknown_options|pending|flow_specification_rejected):"
     "result [* x8:option d8]"},
    {0x06, "Disconnection Request", "x16:destination x16:source"},
    {0x07, "Disconnection Response", "x16:destination x16:source"},
    {0x08, "Echo Request", "b"},
    {0x09, "Echo Response", "b"},
    {0x0A, "Information Request", "u16(|connectionless_MTU|extended_features|fixed_channels)"},
    {0x0B, "Information Response",
     "u16(|connectionless_MTU|extended_features|fixed_channels) u16(success|not_supported) b"},
    {0x0C, "Create Channel Request", "x16:PSM x16:source u8:controller"},
    {0x0D, "Create Channel Response", "x16:destination x16:source u16:result u16:status"},
    {0x0E, "Move Channel Request", "x16:channel u8:controller"},
    {0x0F, "Move Channel Response", "x16:channel u16:result"},
    {0x10, "Move Channel Confirmation Request", "x16:channel u16:result"},
    {0x11, "Move Channel Confirmation Response", "x16:channel"},
    {0x12, "Connection Parameter Update Request",
     "ms1250:shortest_interval ms1250:longest_interval u16:latency ms10:timeout"},
    {0x13, "Connection Parameter Update Response", "u16(accepted|rejected)"},
    {0x14, "LE Credit Based Connection Request", "x16:SPSM x16:source u16:MTU u16:MPS u16:credits"},
    {0x15, "LE Credit Based Connection Response",
     "x16:destination u16:MTU u16:MPS u16:credits crresult"},
    {0x16, "Flow Control Credit", "x16:channel u16:credits"},
    {0x17, "Credit Based Connection Request",
     "x16:SPSM u16:MTU u16:MPS u16:credits [* x16:source]"},
    {0x18, "Credit Based Connection Response",
     "u16:MTU u16:MPS u16:credits crresult [* x16:destination]"},
    {0x19, "Credit Based Reconfigure Request", "u16:MTU u16:MPS [* x16:destination]"},
    {0x1A, "Credit Based Reconfigure Response",
     "u16(success|smaller_MTU|smaller_MPS|invalid_CID|unacceptable):result"},
};

}  // namespace

CodeRows AttRows() { return {std::begin(kAttOpcodes), std::end(kAttOpcodes)}; }
CodeRows AttErrorRows() { return {std::begin(kAttErrors), std::end(kAttErrors)}; }
CodeRows SmpRows() { return {std::begin(kSmpCodes), std::end(kSmpCodes)}; }
CodeRows SignallingRows() { return {std::begin(kSignallingCodes), std::end(kSignallingCodes)}; }

}  // namespace wire
