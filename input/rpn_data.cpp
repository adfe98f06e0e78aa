#include "input/rpn_data.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/log.h"
#include "base/number.h"
#include "base/status.h"
#include "input/utils.h"

namespace quilmrun {
namespace {

constexpr size_t kSingleClassValues = 4;
constexpr uint32_t kSingleClassHeight = 1;
constexpr size_t kMultiClassRows = 4;

uint32_t NonNegative(int64_t dimension) {
  return static_cast<uint32_t>(std::max<int64_t>(dimension, 0));
}

// The layout of the rows of parameters in a buffer.
struct ParameterRows {
  size_t rows;
  size_t width;   // floats
  int32_t pitch;  // bytes
};

ParameterRows RowsFor(size_t values, size_t rpnWidth, size_t stride) {
  // Four values that a multi-class model takes as four rows of one lie as they do for a single
  // class.
  if (values <= kSingleClassValues) {
    return {1, values, 0};
  }
  // A row starts at a whole float, so that the runtime can read it.
  constexpr int32_t kFloatSize = sizeof(float);
  return {kMultiClassRows, rpnWidth, static_cast<int32_t>(stride) / kFloatSize * kFloatSize};
}

// True when `count` values fill the rows and all rows lie within `size` bytes. Reports otherwise
// what does not fit.
bool Fits(const ParameterRows& layout, size_t count, size_t size) {
  // A stride of 2 GiB or more has become negative. Its rows lie outside of any buffer.
  const size_t pitch =
      layout.pitch < 0 ? SIZE_MAX / kMultiClassRows : static_cast<size_t>(layout.pitch);
  const size_t needed = (layout.rows - 1) * pitch + layout.width * sizeof(float);
  if (needed > size || layout.rows * layout.width != count) {
    LogError("rpn data of %zu values needs %zu bytes, its buffer holds %zu", count, needed, size);
    return false;
  }
  return true;
}

// No model takes so many values, and no number has so many digits; yet memory can hold them. A file
// that never ends, such as a device, is refused at these limits.
constexpr size_t kMaxValues = size_t{1} << 24;
constexpr size_t kMaxNumberLength = size_t{1} << 20;

// False, after a report, when a file exceeds a limit.
bool IsReasonable(const std::string& path, size_t values, size_t unfinished) {
  if (values > kMaxValues) {
    LogError("file %s holds more than %zu numbers", path.c_str(), kMaxValues);
    return false;
  }
  if (unfinished > kMaxNumberLength) {
    LogError("a number in file %s is longer than %zu bytes", path.c_str(), kMaxNumberLength);
    return false;
  }
  return true;
}

}  // namespace

int ReadRpnFile(const std::string& path, std::vector<float>& values) {
  if (CheckFile(path) != kSuccess) {
    return kFailure;
  }
  const InputFile file(path);
  if (!file.IsOpen()) {
    ReportOpenFailure(path);
    return kFailure;
  }
  std::string text;  // what has been read, but is not a complete number yet
  for (bool more = true; more;) {
    more = file.AppendChunk(text);
    std::string_view rest = text;
    // A number may lie across two pieces of the file: only the last piece is parsed to its end.
    if (!(more ? ParseFloatsSoFar(rest, values) : ParseFloats(rest, values)) ||
        !IsReasonable(path, values.size(), rest.size())) {
      return kFailure;
    }
    text.erase(0, text.size() - rest.size());
  }
  return kSuccess;
}

int CheckRpnShape(const quilm_mdl_io_dims& dims, size_t count, uint32_t& rpnHeight,
                  uint32_t& rpnWidth) {
  rpnHeight = NonNegative(dims.dims[0]);
  rpnWidth = NonNegative(dims.dims[1]);
  LogInfo("input rpn data height[%u] * width[%u]", rpnHeight, rpnWidth);
  const uint32_t total = rpnHeight * rpnWidth;
  if (rpnHeight == kSingleClassHeight) {
    if (count != kSingleClassValues || total != kSingleClassValues) {
      LogError("[single thr]: detPara.size %lu should be 4, Please check rpn file.", count);
      return kFailure;
    }
  } else if (rpnHeight != kMultiClassRows) {
    LogError("only support single or multi class");
    return kFailure;
  } else if (count != total) {
    LogError("[multi thr]: detPara.size %zu should be %u", count, total);
    return kFailure;
  }
  return kSuccess;
}

int LayOutParameters(const std::vector<float>& values, size_t rpnWidth, size_t stride, void* memory,
                     size_t size) {
  const ParameterRows layout = RowsFor(values.size(), rpnWidth, stride);
  if (!Fits(layout, values.size(), size)) {
    return kFailure;
  }
  for (size_t r = 0; r < layout.rows && layout.width > 0; ++r) {
    std::memcpy(static_cast<char*>(memory) + r * static_cast<size_t>(layout.pitch),
                values.data() + r * layout.width, layout.width * sizeof(float));
  }
  return kSuccess;
}

}  // namespace quilmrun
