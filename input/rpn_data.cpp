#include "input/rpn_data.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "base/log.h"
#include "base/number.h"
#include "base/status.h"
#include "input/utils.h"

namespace quilmrun {
namespace {

constexpr uint32_t kSingleClassHeight = 1;

uint32_t NonNegative(int64_t dimension) {
  return static_cast<uint32_t>(std::max<int64_t>(dimension, 0));
}

}  // namespace

int ReadRpnFile(const std::string& path, std::vector<float>& values) {
  if (CheckFile(path) != kSuccess) {
    return kFailure;
  }
  const std::optional<std::string> text = ReadTextFile(path);
  return text.has_value() && ParseFloats(*text, values) ? kSuccess : kFailure;
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

}  // namespace quilmrun
