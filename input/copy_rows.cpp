// Moves the packed rows of an input file to their places in device memory.
//
// The system puts the bytes where they belong: each call takes a list of rows. Nothing is read back
// from device memory, which a board may not cache, so that reading it would cost more than any
// cleverness saves.
#include <limits.h>

#include <utility>

#include "input/staging.h"

namespace quilmrun {
namespace {

// A row may be as short as one element, and a call for each row would cost far more than the copy.
#ifdef IOV_MAX
constexpr size_t kMaxPieces = IOV_MAX;
#else
constexpr size_t kMaxPieces = 1024;  // Linux's limit, where the header does not tell
#endif

// Collects rows until a list is full. Both operations return false once the file has ended.
class RowReader {
 public:
  explicit RowReader(const InputFile& file) : file_(file) {}

  bool Add(char* target, size_t size) {
    // Rows without padding between them are one piece, which spares the system the list.
    if (target == end_) {
      pieces_[count_ - 1].iov_len += size;
    } else if (count_ == kMaxPieces && !Flush()) {
      return false;
    } else {
      pieces_[count_++] = {target, size};
    }
    end_ = target + size;
    return true;
  }

  bool Flush() { return file_.ReadPieces(pieces_, std::exchange(count_, 0)); }

 private:
  const InputFile& file_;
  iovec pieces_[kMaxPieces];
  size_t count_ = 0;
  const char* end_ = nullptr;  // of the last piece
};

}  // namespace

void CopyRows(const InputFile& file, const RowLayout& layout, void* memory) {
  if (layout.rowBytes == 0) {
    return;  // every list would be empty, and none of them would show where the file ends
  }
  RowReader reader(file);
  char* const start = static_cast<char*>(memory);
  for (size_t b = 0; b < layout.batches; ++b) {
    for (size_t r = 0; r < layout.rows; ++r) {
      // Only rows that fit are counted, but the place of one more would be beyond all memory.
      if (!reader.Add(start + b * layout.batchSize + r * layout.stride, layout.rowBytes)) {
        return;
      }
    }
  }
  reader.Flush();
}

}  // namespace quilmrun
