#include "sim/handset/status_file.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace zvk {
namespace {

// One "name": value a line, so that grep does as well as a JSON reader.
class Object {
 public:
  void Add(const std::string& name, bool value) { Raw(name, value ? "true" : "false"); }
  void Add(const std::string& name, uint64_t value) { Raw(name, std::to_string(value)); }
  void Add(const std::string& name, const std::string& value) { Raw(name, Quoted(value)); }
  void Raw(const std::string& name, const std::string& value) {
    text_ << (empty_ ? "" : ",\n") << Quoted(name) << ": " << value;
    empty_ = false;
  }
  std::string Text() const { return "{\n" + text_.str() + "\n}"; }

 private:
  static std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
      char escape[8];
      const auto byte = static_cast<unsigned char>(c);
      if (byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\') {
        quoted += c;
      } else {
        std::snprintf(escape, sizeof(escape), "\\u%04x", byte);
        quoted += escape;
      }
    }
    return quoted + "\"";
  }

  std::ostringstream text_;
  bool empty_ = true;
};

}  // namespace

std::string StatusJson(const Status& status,
                       const std::map<std::string, WakeLocks::Account>& wake_locks) {
  Object json;
  json.Add("powered", status.powered);
  json.Add("power_cycles", status.power_cycles);
  json.Add("starts", status.starts);
  json.Add("patched", status.patched);
  json.Add("listening", status.listening);
  json.Add("speed_baud", uint64_t{status.speed_baud});
  json.Add("sleep_mode", status.sleep_mode);
  json.Add("lpm_enabled", status.lpm_enabled);
  json.Add("awake", status.awake);
  json.Add("address", status.address);
  json.Add("channel_map", status.extensions.channel_map);
  json.Add("sar_format", status.extensions.sar_format);
  json.Add("sar_caps", status.extensions.sar_caps);
  json.Add("ewp_interval", status.extensions.ewp_interval);
  Object ccc;
  for (const auto& [address, events] : status.extensions.ccc) ccc.Add(address, events);
  json.Raw("ccc", ccc.Text());
  if (status.co_processor) {
    const CoProcessor::State& state = *status.co_processor;
    Object co_processor;
    co_processor.Add("connected", state.connected);
    co_processor.Add("connections", state.connections);
    co_processor.Add("on", state.powered);
    co_processor.Add("low_power", state.low_power);
    co_processor.Add("line_baud", uint64_t{state.speed_baud});
    Object requests;
    for (const auto& [request, count] : state.requests) requests.Add(request, count);
    co_processor.Raw("requests", requests.Text());
    json.Raw("co_processor", co_processor.Text());
  }
  json.Add("bytes_from_host", status.bytes_from_host);
  json.Add("bytes_to_host", status.bytes_to_host);
  json.Add("bytes_lost_asleep", status.bytes_lost_asleep);
  json.Add("packets_from_host", status.packets_from_host);
  json.Add("packets_to_host", status.packets_to_host);
  json.Add("packets_dropped", status.packets_dropped);
  json.Add("sync_losses", status.sync_losses);
  json.Add("coex_acknowledged", status.coex_acknowledged);
  Object locks;
  for (const auto& [name, account] : wake_locks) {
    Object lock;
    lock.Add("held", account.held);
    lock.Add("acquired", account.acquired);
    lock.Add("released", account.released);
    locks.Raw(name, lock.Text());
  }
  json.Raw("wake_locks", locks.Text());
  Object commands;
  for (const auto& [opcode, count] : status.commands) {
    char name[16];
    std::snprintf(name, sizeof(name), "0x%04X", opcode);
    commands.Add(name, count);
  }
  json.Raw("commands", commands.Text());
  return json.Text() + "\n";
}

bool ReplaceFile(const std::string& path, const std::string& content) {
  const std::string fresh = path + ".new";
  std::ofstream out(fresh, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  return out.good() && std::rename(fresh.c_str(), path.c_str()) == 0;
}

}  // namespace zvk
