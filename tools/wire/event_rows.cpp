#include "tools/wire/code_rows.h"

namespace wire {
namespace {

// Events (Core 5.4, 4.E.7.7).
constexpr CodeRow kEvents[] = {
    {0x01, "Inquiry Complete", "status"},
    {0x02, "Inquiry Result", "[n8 addr u8:repetition_mode -2 x24:class x16:clock_offset]"},
    {0x03, "Connection Complete", "status handle addr link u8(not_encrypted|encrypted)"},
    {0x04, "Connection Request", "addr x24:class link"},
    {0x05, "Disconnection Complete", "status handle status:reason"},
    {0x06, "Authentication Complete", "status handle"},
    {0x07, "Remote Name Request Complete", "status addr s248:name"},
    {0x08, "Encryption Change", "status handle encryption"},
    {0x09, "Change Connection Link Key Complete", "status handle"},
    {0x0A, "Link Key Selection Complete", "status handle u8(semi-permanent|temporary):key"},
    {0x0B, "Read Remote Supported Features Complete", "status handle b8:features"},
    {0x0C, "Read Remote Version Information Complete",
     "status handle version company x16:subversion"},
    {0x0D, "QoS Setup Complete",
     "status handle -1 service u32:token_rate u32:peak_bandwidth u32us:latency "
     "u32us:delay_variation"},
    {0x0E, "Command Complete", "u8:credits opcode"},
    {0x0F, "Command Status", "status u8:credits opcode"},
    {0x10, "Hardware Error", "x8:code"},
    {0x11, "Flush Occurred", "handle"},
    {0x12, "Role Change", "status addr role"},
    {0x13, "Number Of Completed Packets", "[n8 handle u16:packets]"},
    {0x14, "Mode Change", "status handle u8(active|hold|sniff|park) ms625:interval"},
    {0x15, "Return Link Keys", "[n8 addr b16:key]"},
    {0x16, "PIN Code Request", "addr"},
    {0x17, "Link Key Request", "addr"},
    {0x18, "Link Key Notification", "addr b16:key u8:type"},
    {0x19, "Loopback Command", "opcode u8:length b:parameters"},
    {0x1A, "Data Buffer Overflow", "u8(synchronous|ACL|ISO)"},
    {0x1B, "Max Slots Change", "handle u8:slots"},
    {0x1C, "Read Clock Offset Complete", "status handle x16:clock_offset"},
    {0x1D, "Connection Packet Type Changed", "status handle x16:packet_types"},
    {0x1E, "QoS Violation", "handle"},
    {0x1F, "Page Scan Mode Change", "addr u8:mode"},
    {0x20, "Page Scan Repetition Mode Change", "addr u8:repetition_mode"},
    {0x21, "Flow Specification Complete",
     "status handle -1 u8(outgoing|incoming) service u32:token_rate u32:bucket_size "
     "u32:peak_bandwidth u32us:latency"},
    {0x22, "Inquiry Result With RSSI",
     "[n8 addr u8:repetition_mode -1 x24:class x16:clock_offset i8dBm:RSSI]"},
    {0x23, "Read Remote Extended Features Complete",
     "status handle u8:page u8:last_page b8:features"},
    {0x2C, "Synchronous Connection Complete",
     "status handle addr link u8*0.625ms:interval u8*0.625ms:window u16:receive_length "
     "u16:transmit_length air"},
    {0x2D, "Synchronous Connection Changed",
     "status handle u8*0.625ms:interval u8*0.625ms:window u16:receive_length u16:transmit_length"},
    {0x2E, "Sniff Subrating",
     "status handle ms625:transmit_latency ms625:receive_latency ms625:remote_timeout "
     "ms625:local_timeout"},
    {0x2F, "Extended Inquiry Result",
     "-1 addr u8:repetition_mode -1 x24:class x16:clock_offset i8dBm:RSSI ad240"},
    {0x30, "Encryption Key Refresh Complete", "status handle"},
    {0x31, "IO Capability Request", "addr"},
    {0x32, "IO Capability Response", "addr io u8(no_OOB_data|OOB_data) x8:authentication"},
    {0x33, "User Confirmation Request", "addr u32:number"},
    {0x34, "User Passkey Request", "addr"},
    {0x35, "Remote OOB Data Request", "addr"},
    {0x36, "Simple Pairing Complete", "status addr"},
    {0x38, "Link Supervision Timeout Changed", "handle ms625:timeout"},
    {0x39, "Enhanced Flush Complete", "handle"},
    {0x3B, "User Passkey Notification", "addr u32:passkey"},
    {0x3C, "Keypress Notification", "addr keypress"},
    {0x3D, "Remote Host Supported Features Notification", "addr b8:features"},
    {0x3E, "LE Meta"},
    {0x40, "Physical Link Complete", "status u8:physical_link"},
    {0x41, "Channel Selected", "u8:physical_link"},
    {0x42, "Disconnect Physical Link Complete", "status u8:physical_link status:reason"},
    {0x43, "Physical Link Loss Early Warning", "u8:physical_link u8:reason"},
    {0x44, "Physical Link Recovery", "u8:physical_link"},
    {0x45, "Logical Link Complete", "status x16:logical_link u8:physical_link u8:flow"},
    {0x46, "Disconnect Logical Link Complete", "status x16:logical_link status:reason"},
    {0x47, "Flow Spec Modify Complete", "status handle"},
    {0x48, "Number Of Completed Data Blocks", "u16:blocks [n8 handle u16:packets u16:blocks]"},
    {0x49, "AMP Start Test", "status u8:scenario"},
    {0x4A, "AMP Test End", "status u8:scenario"},
    {0x4B, "AMP Receiver Report",
     "u8:type u8:reason u8:event u16:frames u16:error_frames u32:bits u32:error_bits"},
    {0x4C, "Short Range Mode Change Complete", "status u8:physical_link on"},
    {0x4D, "AMP Status Change", "status u8:state"},
    {0x4E, "Triggered Clock Capture", "handle u8(local|piconet) x32:clock u16us:slot_offset"},
    {0x4F, "Synchronization Train Complete", "status"},
    {0x50, "Synchronization Train Received",
     "status addr x32:clock_offset b10:channels u8:LT_ADDR x32:next_instant ms625:interval "
     "x8:service_data"},
    {0x51, "Connectionless Peripheral Broadcast Receive",
     "addr u8:LT_ADDR x32:clock x32:clock_offset u8(received|not_received) "
     "u8(intermediate|first|last|complete) d8:data"},
    {0x52, "Connectionless Peripheral Broadcast Timeout", "addr u8:LT_ADDR"},
    {0x53, "Truncated Page Complete", "status addr"},
    {0x54, "Peripheral Page Response Timeout"},
    {0x55, "Connectionless Peripheral Broadcast Channel Map Change", "b10:channels"},
    {0x56, "Inquiry Response Notification", "x24:LAP i8dBm:RSSI"},
    {0x57, "Authenticated Payload Timeout Expired", "handle"},
    {0x58, "SAM Status Change",
     "handle u8:local_SAM u8:local_transmit u8:local_receive u8:remote_SAM u8:remote_transmit "
     "u8:remote_receive"},
    {0x59, "Encryption Change V2", "status handle encryption u8:key_size"},
    {0xFF, "Vendor"},
};

// Subevents of the LE Meta event (Core 5.4, 4.E.7.7.65).
constexpr CodeRow kLeEvents[] = {
    {0x01, "LE Connection Complete",
     "status handle role taddr ms1250:interval u16:latency ms10:timeout u8:accuracy"},
    {0x02, "LE Advertising Report",
     "[n8 u8(ADV_IND|ADV_DIRECT_IND|ADV_SCAN_IND|ADV_NONCONN_IND|SCAN_RSP) taddr ad i8dBm:RSSI]"},
    {0x03, "LE Connection Update Complete",
     "status handle ms1250:interval u16:latency ms10:timeout"},
    {0x04, "LE Read Remote Features Complete", "status handle b8:features"},
    {0x05, "LE Long Term Key Request", "handle b8:random x16:EDIV"},
    {0x06, "LE Remote Connection Parameter Request",
     "handle ms1250:shortest_interval ms1250:longest_interval u16:latency ms10:timeout"},
    {0x07, "LE Data Length Change",
     "handle u16:transmit_bytes u16us:transmit_time u16:receive_bytes u16us:receive_time"},
    {0x08, "LE Read Local P-256 Public Key Complete", "status b32:X b32:Y"},
    {0x09, "LE Generate DHKey Complete", "status b32:key"},
    {0x0A, "LE Enhanced Connection Complete",
     "status handle role taddr addr:local_RPA addr:peer_RPA ms1250:interval u16:latency "
     "ms10:timeout u8:accuracy"},
    {0x0B, "LE Direct Advertising Report", "[n8 u8(|ADV_DIRECT_IND) taddr taddr:for i8dBm:RSSI]"},
    {0x0C, "LE PHY Update Complete", "status handle phy:transmit phy:receive"},
    {0x0D, "LE Extended Advertising Report",
     "[n8 x16:type taddr phy:primary phy:secondary u8:SID i8dBm:power i8dBm:RSSI ms1250:interval "
     "taddr:for ad]"},
    {0x0E, "LE Periodic Advertising Sync Established",
     "status x16:sync u8:SID taddr phy ms1250:interval u8:accuracy"},
    {0x0F, "LE Periodic Advertising Report",
     "x16:sync i8dBm:power i8dBm:RSSI x8:CTE_type u8(complete|incomplete|truncated) ad"},
    {0x10, "LE Periodic Advertising Sync Lost", "x16:sync"},
    {0x11, "LE Scan Timeout"},
    {0x12, "LE Advertising Set Terminated", "status u8:set handle u8:events"},
    {0x13, "LE Scan Request Received", "u8:set taddr"},
    {0x14, "LE Channel Selection Algorithm", "handle u8(#1|#2):algorithm"},
    {0x15, "LE Connectionless IQ Report",
     "x16:sync u8:channel i16*0.1dBm:RSSI u8:antenna x8:CTE_type u8:slots u8:packet_status "
     "u16:event [n8:samples i8 i8]"},
    {0x16, "LE Connection IQ Report",
     "handle phy u8:channel i16*0.1dBm:RSSI u8:antenna x8:CTE_type u8:slots u8:packet_status "
     "u16:event [n8:samples i8 i8]"},
    {0x17, "LE CTE Request Failed", "status handle"},
    {0x18, "LE Periodic Advertising Sync Transfer Received",
     "status handle x16:service_data x16:sync u8:SID taddr phy ms1250:interval u8:accuracy"},
    {0x19, "LE CIS Established",
     "status handle u24us:CIG_delay u24us:CIS_delay u24us:latency_to_peripheral "
     "u24us:latency_to_central phy:to_peripheral phy:to_central u8:NSE u8:BN_to_peripheral "
     "u8:BN_to_central u8:FT_to_peripheral u8:FT_to_central u16:PDU_to_peripheral "
     "u16:PDU_to_central ms1250:ISO_interval"},
    {0x1A, "LE CIS Request", "handle:ACL handle:CIS u8:CIG u8:CIS"},
    {0x1B, "LE Create BIG Complete",
     "status u8:BIG u24us:delay u24us:latency phy u8:NSE u8:BN u8:PTO u8:IRC u16:PDU "
     "ms1250:ISO_interval [n8 handle]"},
    {0x1C, "LE Terminate BIG Complete", "u8:BIG status:reason"},
    {0x1D, "LE BIG Sync Established",
     "status u8:BIG u24us:latency u8:NSE u8:BN u8:PTO u8:IRC u16:PDU ms1250:ISO_interval [n8 "
     "handle]"},
    {0x1E, "LE BIG Sync Lost", "u8:BIG status:reason"},
    {0x1F, "LE Request Peer SCA Complete", "status handle u8:accuracy"},
    {0x20, "LE Path Loss Threshold", "handle u8dB:path_loss u8(low|middle|high):zone"},
    {0x21, "LE Transmit Power Reporting",
     "status handle u8(local_change|remote_change|answer) u8(|1M|2M|coded_S8|coded_S2):PHY "
     "i8dBm:power x8:limits i8dB:change"},
    {0x22, "LE BIGInfo Advertising Report",
     "x16:sync u8:BIS u8:NSE ms1250:ISO_interval u8:BN u8:PTO u8:IRC u16:PDU u24us:SDU_interval "
     "u16:SDU phy framing u8(open|encrypted)"},
    {0x23, "LE Subrate Change",
     "status handle u16:factor u16:latency u16:continuation ms10:timeout"},
    {0x24, "LE Periodic Advertising Sync Established V2",
     "status x16:sync u8:SID taddr phy ms1250:interval u8:accuracy u8:subevents "
     "u8*1.25ms:subevent_interval u8*1.25ms:response_delay u8*0.125ms:slot_spacing"},
    {0x25, "LE Periodic Advertising Report V2",
     "x16:sync i8dBm:power i8dBm:RSSI x8:CTE_type u16:event u8:subevent "
     "u8(complete|incomplete|truncated|255=failed) ad"},
    {0x26, "LE Periodic Advertising Sync Transfer Received V2",
     "status handle x16:service_data x16:sync u8:SID taddr phy ms1250:interval u8:accuracy "
     "u8:subevents u8*1.25ms:subevent_interval u8*1.25ms:response_delay u8*0.125ms:slot_spacing"},
    {0x27, "LE Periodic Advertising Subevent Data Request", "u8:set u8:from u8:subevents"},
    {0x28, "LE Periodic Advertising Response Report",
     "u8:set u8:subevent u8:transmit_status [n8:responses i8dBm:power i8dBm:RSSI x8:CTE_type "
     "u8:slot u8(complete|incomplete|truncated|255=failed) d8:data]"},
    {0x29, "LE Enhanced Connection Complete V2",
     "status handle role taddr addr:local_RPA addr:peer_RPA ms1250:interval u16:latency "
     "ms10:timeout u8:accuracy u8:set x16:sync"},
};

// First parameters of the vendor event.
constexpr CodeRow kVendorEvents[] = {
    {0x57, "Debug Info", "-2 u8(more_follows|last) b:memory"},
    {0x58, "Quality Report", "u8:report b"},
    {0xD0, "Link-Layer Event",
     "addr -1 u8(sent|received) u64:bluetooth_time x8(24=LL_PHY_UPDATE_IND|255=CONNECT_IND) "
     "u8:toggles u16us:offset u16:event_counter"},
};

// The radio in a report on a link's quality, in both layouts.
constexpr char kShortLink[] =
    "-1 handle -180 i8dBm:RSSI_0 i8dBm:RSSI_1 i8dBm:power_0 i8dBm:again_0 i8dBm:power_1 "
    "i8dBm:again_1 x8:beamforming x8:again x8:diversity x8:again";
constexpr char kLongLink[] =
    "-1 handle -144 i8dBm:RSSI_0 i8dBm:RSSI_1 i8dBm:power_0 i8dBm:again_0 i8dBm:power_1 "
    "i8dBm:again_1 x8:beamforming x8:again x8:diversity x8:again -68 u8:quality u8:to_the_peer "
    "u8:from_it -16";

// Quality reports by their type; those of the longer layout have it with kLongQualityReport.
constexpr CodeRow kQualityReports[] = {
    {0x001, "Monitoring", kShortLink},
    {0x002, "Approaching LSTO", kShortLink},
    {0x003, "A2DP Choppy", kShortLink},
    {0x004, "SCO Choppy", kShortLink},
    {0x005, "Root Inflammation", "x8:error x8:vendor_error"},
    {0x007, "LE Audio Choppy", kShortLink},
    {0x013, "Controller Memory Dump", "b:memory"},
    {0x014, "Co-processor Memory Dump", "b:memory"},
    {0x020, "Vendor Trace",
     "u8(A2DP_latency) handle u8:packets u32:base [* u16*0.625ms:entry "
     "u16*0.625ms:first_transmission u16*0.625ms:first_acknowledgement "
     "u16*0.625ms:last_transmission]"},
    {0x101, "Monitoring", kLongLink},
    {0x102, "Approaching LSTO", kLongLink},
    {0x103, "A2DP Choppy", kLongLink},
    {0x104, "SCO Choppy", kLongLink},
    {0x107, "LE Audio Choppy", kLongLink},
};

}  // namespace

CodeRows EventRows() { return {std::begin(kEvents), std::end(kEvents)}; }
CodeRows LeEventRows() { return {std::begin(kLeEvents), std::end(kLeEvents)}; }
CodeRows VendorEventRows() { return {std::begin(kVendorEvents), std::end(kVendorEvents)}; }
CodeRows QualityReportRows() { return {std::begin(kQualityReports), std::end(kQualityReports)}; }

}  // namespace wire
