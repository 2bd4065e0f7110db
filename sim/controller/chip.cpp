#include "sim/controller/chip.h"

namespace zvk {

const std::vector<ChipPreset>& ChipPresets() {
  static const std::vector<ChipPreset> kPresets = {
      {"B5", 0xB5, true, true, false, "ZVK_B5.hcd", "patched, fast download, own firmware file"},
      {"AE", 0xAE, true, true, false, "ZVK_AE.hcd", "patched, fast download, own firmware file"},
      {"AA", 0xAA, true, false, true, "", "patched, always fast, ZVK.hcd"},
      {"20", 0x20, true, false, false, "", "patched record by record, ZVK.hcd"},
      {"ready", 0x30, false, false, false, "", "runs from its ROM; a patch is accepted"},
  };
  return kPresets;
}

const ChipPreset* FindChip(const std::string& name) {
  for (const ChipPreset& preset : ChipPresets()) {
    if (preset.name == name) return &preset;
  }
  return nullptr;
}

}  // namespace zvk
