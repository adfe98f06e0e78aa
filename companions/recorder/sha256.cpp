#include "companions/recorder/sha256.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace quilmrun_record {
namespace {

constexpr int kRounds = 64;

constexpr uint32_t kConstants[kRounds] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr uint32_t Rotate(uint32_t value, int bits) {
  return value >> bits | value << (32 - bits);
}

uint32_t BigEndian(const unsigned char* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

}  // namespace

void Sha256::AddBlock(const unsigned char* block) {
  uint32_t words[kRounds];
  for (size_t i = 0; i < 16; ++i) {
    words[i] = BigEndian(block + 4 * i);
  }
  for (int i = 16; i < kRounds; ++i) {
    const uint32_t a = words[i - 15];
    const uint32_t b = words[i - 2];
    words[i] = words[i - 16] + words[i - 7] + (Rotate(a, 7) ^ Rotate(a, 18) ^ a >> 3) +
               (Rotate(b, 17) ^ Rotate(b, 19) ^ b >> 10);
  }
  uint32_t s[8];
  std::copy(state_, state_ + 8, s);
  for (int i = 0; i < kRounds; ++i) {
    const uint32_t first = s[7] + (Rotate(s[4], 6) ^ Rotate(s[4], 11) ^ Rotate(s[4], 25)) +
                           ((s[4] & s[5]) ^ (~s[4] & s[6])) + kConstants[i] + words[i];
    const uint32_t second = (Rotate(s[0], 2) ^ Rotate(s[0], 13) ^ Rotate(s[0], 22)) +
                            ((s[0] & s[1]) ^ (s[0] & s[2]) ^ (s[1] & s[2]));
    std::copy_backward(s, s + 7, s + 8);
    s[4] += first;
    s[0] = first + second;
  }
  for (int i = 0; i < 8; ++i) {
    state_[i] += s[i];
  }
}

void Sha256::Add(const unsigned char* bytes, size_t size) {
  while (size > 0) {
    const size_t used = size_ % kBlock;
    const size_t taken = std::min(size, kBlock - used);
    std::memcpy(rest_ + used, bytes, taken);
    bytes += taken;
    size -= taken;
    size_ += taken;
    if (size_ % kBlock == 0) {
      AddBlock(rest_);
    }
  }
}

std::string Sha256::Finish() {
  const uint64_t bits = size_ * 8;
  const unsigned char end = 0x80;
  const unsigned char zero = 0;
  Add(&end, 1);
  while (size_ % kBlock != kBlock - sizeof(bits)) {
    Add(&zero, 1);
  }
  unsigned char length[sizeof(bits)];
  for (size_t i = 0; i < sizeof(bits); ++i) {
    length[i] = static_cast<unsigned char>(bits >> (8 * (sizeof(bits) - 1 - i)));
  }
  Add(length, sizeof(length));
  std::string digits;
  for (const uint32_t word : state_) {
    char text[9];
    std::snprintf(text, sizeof(text), "%08x", word);
    digits += text;
  }
  return digits;
}

}  // namespace quilmrun_record
