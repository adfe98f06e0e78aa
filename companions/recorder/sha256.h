#ifndef QUILMRUN_COMPANIONS_RECORDER_SHA256_H_
#define QUILMRUN_COMPANIONS_RECORDER_SHA256_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace quilmrun_record {

/// The SHA-256 checksum of bytes that come piece by piece (FIPS 180-4).
class Sha256 {
 public:
  void Add(const unsigned char* bytes, size_t size);

  /// 64 hexadecimal digits. Nothing may be added afterwards.
  std::string Finish();

 private:
  static constexpr size_t kBlock = 64;
  void AddBlock(const unsigned char* block);

  uint32_t state_[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  unsigned char rest_[kBlock] = {};  // bytes that do not fill a block yet
  uint64_t size_ = 0;                // bytes in all
};

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_SHA256_H_
