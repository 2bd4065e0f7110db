#include "sim/controller/aes.h"

namespace zvk {
namespace {

constexpr int kRounds = 10;

uint8_t Double(uint8_t value) {
  return static_cast<uint8_t>((value << 1) ^ ((value & 0x80) != 0 ? 0x1B : 0));
}

uint8_t Rotate(uint8_t value, int bits) {
  return static_cast<uint8_t>((value << bits) | (value >> (8 - bits)));
}

// The substitution box, computed: 3 generates the field, 0xF6 is its inverse.
std::array<uint8_t, 256> MakeBox() {
  std::array<uint8_t, 256> box{};
  uint8_t value = 1;
  uint8_t inverse = 1;
  do {
    value = static_cast<uint8_t>(value ^ Double(value));
    inverse = static_cast<uint8_t>(inverse ^ (inverse << 1));
    inverse = static_cast<uint8_t>(inverse ^ (inverse << 2));
    inverse = static_cast<uint8_t>(inverse ^ (inverse << 4));
    if ((inverse & 0x80) != 0) inverse ^= 0x09;
    box[value] = static_cast<uint8_t>(inverse ^ Rotate(inverse, 1) ^ Rotate(inverse, 2) ^
                                      Rotate(inverse, 3) ^ Rotate(inverse, 4) ^ 0x63);
  } while (value != 1);
  box[0] = 0x63;
  return box;
}

const std::array<uint8_t, 256>& Box() {
  static const std::array<uint8_t, 256> kBox = MakeBox();
  return kBox;
}

// The next round's key from this round's.
void NextKey(AesBlock* key, uint8_t constant) {
  AesBlock& k = *key;
  const uint8_t first[4] = {static_cast<uint8_t>(Box()[k[13]] ^ constant), Box()[k[14]],
                            Box()[k[15]], Box()[k[12]]};
  for (size_t i = 0; i < 16; ++i) k[i] = static_cast<uint8_t>(k[i] ^ (i < 4 ? first[i] : k[i - 4]));
}

void Add(AesBlock* state, const AesBlock& key) {
  for (size_t i = 0; i < 16; ++i) (*state)[i] = static_cast<uint8_t>((*state)[i] ^ key[i]);
}

void SubstituteAndShift(AesBlock* state) {
  const AesBlock from = *state;
  for (size_t column = 0; column < 4; ++column) {
    for (size_t row = 0; row < 4; ++row) {
      (*state)[4 * column + row] = Box()[from[4 * ((column + row) % 4) + row]];
    }
  }
}

void MixColumns(AesBlock* state) {
  for (size_t column = 0; column < 16; column += 4) {
    uint8_t* c = state->data() + column;
    const uint8_t first = c[0];
    const auto all = static_cast<uint8_t>(c[0] ^ c[1] ^ c[2] ^ c[3]);
    for (int row = 0; row < 4; ++row) {
      const uint8_t next = row < 3 ? c[row + 1] : first;
      c[row] = static_cast<uint8_t>(c[row] ^ all ^ Double(static_cast<uint8_t>(c[row] ^ next)));
    }
  }
}

}  // namespace

AesBlock AesEncrypt(const AesBlock& key, const AesBlock& text) {
  AesBlock state = text;
  AesBlock round_key = key;
  uint8_t constant = 1;
  Add(&state, round_key);
  for (int round = 1; round <= kRounds; ++round) {
    SubstituteAndShift(&state);
    if (round < kRounds) MixColumns(&state);
    NextKey(&round_key, constant);
    constant = Double(constant);
    Add(&state, round_key);
  }
  return state;
}

}  // namespace zvk
