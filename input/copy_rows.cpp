#include <limits.h>

#include <algorithm>
#include <vector>

#include "input/staging.h"

namespace quilmrun {
namespace {

#ifdef IOV_MAX
constexpr size_t kMaxPieces = IOV_MAX;
#else
constexpr size_t kMaxPieces = 1024;  // Linux's limit, where the header does not tell
#endif

// Hands rows to the file in as few system calls as it allows: a row may be as short as one element,
// and a call for each would cost far more than the copy.
class RowReader {
 public:
  explicit RowReader(const InputFile& file) : file_(file) { pieces_.reserve(kMaxPieces); }

  // Both return false once the file has ended.
  bool Add(char* target, size_t size) {
    if (!pieces_.empty() && EndOf(pieces_.back()) == target) {
      pieces_.back().iov_len += size;
      return true;
    }
    if (pieces_.size() == kMaxPieces && !Flush()) {
      return false;
    }
    pieces_.push_back({target, size});
    return true;
  }
  bool Flush() { return file_.ReadPieces(pieces_); }

 private:
  static char* EndOf(const iovec& piece) {
    return static_cast<char*>(piece.iov_base) + piece.iov_len;
  }

  const InputFile& file_;
  std::vector<iovec> pieces_;
};

}  // namespace

void CopyRows(const InputFile& file, const RowLayout& layout, void* memory) {
  if (layout.rowBytes == 0) {
    return;
  }
  RowReader reader(file);
  char* batch = static_cast<char*>(memory);
  for (size_t b = 0; b < layout.batches; ++b, batch += layout.batchSize) {
    char* row = batch;
    for (size_t r = 0; r < layout.rows; ++r, row += layout.stride) {
      if (!reader.Add(row, layout.rowBytes)) {
        return;
      }
    }
  }
  reader.Flush();
}

}  // namespace quilmrun
