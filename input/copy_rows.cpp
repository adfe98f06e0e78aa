// Moves the packed rows of an input file to their places in device memory, each byte read once and
// with few system calls.
#include <limits.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "input/staging.h"

namespace quilmrun {
namespace {

#ifdef IOV_MAX
constexpr size_t kMaxPieces = IOV_MAX;
#else
constexpr size_t kMaxPieces = 1024;  // Linux's limit, where the header does not tell
#endif

// A row may be as short as one element, and a system call for each would cost far more than the
// copy. Rows that lie this far apart or further are handed to the system in lists, as long as it
// takes. With closer ones even an entry of such a list costs more than the copy: they are read in
// one piece and then spread within the device memory, as much at once as a processor's cache holds.
constexpr size_t kWideStride = 512;
constexpr size_t kSpreadBytes = 65536;

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

void ReadWideRows(const InputFile& file, const RowLayout& layout, char* batch) {
  RowReader reader(file);
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

// Fills `rows` rows with one read to the end of the memory that is theirs, from where they then
// move forward, one after the other, to their places. False once the file has ended.
bool ReadAndSpread(const InputFile& file, const RowLayout& layout, size_t rows, char* row) {
  const size_t padding = layout.stride - layout.rowBytes;
  const size_t size = rows * layout.rowBytes;
  const char* packed = row + rows * padding;
  const bool complete = file.Read(row + rows * padding, size) == size;
  for (size_t r = 0; r < rows; ++r, row += layout.stride, packed += layout.rowBytes) {
    std::memmove(row, packed, layout.rowBytes);
    std::memset(row + layout.rowBytes, 0, padding);  // ends where the next row still lies packed
  }
  return complete;
}

void ReadCloseRows(const InputFile& file, const RowLayout& layout, char* batch) {
  const size_t mostRows = kSpreadBytes / layout.stride;
  for (size_t b = 0; b < layout.batches; ++b, batch += layout.batchSize) {
    for (size_t r = 0; r < layout.rows; r += mostRows) {
      if (!ReadAndSpread(file, layout, std::min(mostRows, layout.rows - r),
                         batch + r * layout.stride)) {
        return;
      }
    }
  }
}

// Batches that follow each other like rows do become rows of one batch.
RowLayout JoinBatches(RowLayout layout) {
  if (layout.batchSize == layout.rows * layout.stride) {
    layout.rows *= layout.batches;
    layout.batches = std::min<size_t>(layout.batches, 1);
  }
  return layout;
}

}  // namespace

void CopyRows(const InputFile& file, const RowLayout& layout, void* memory) {
  if (layout.rows == 0 || layout.rowBytes == 0) {
    return;
  }
  char* batch = static_cast<char*>(memory);
  if (layout.rowBytes == layout.stride || layout.stride >= kWideStride) {
    ReadWideRows(file, layout, batch);
  } else {
    ReadCloseRows(file, JoinBatches(layout), batch);
  }
}

}  // namespace quilmrun
