#include "input/rpn_data.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "app/log.h"
#include "app/status.h"
#include "input/number.h"
#include "input/utils.h"
#include "model/model_process.h"
#include "model/tensor_description.h"

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

int ModelProcess::SetRpnData() {
  const size_t rpnInput = GetInputNum() - 1;
  std::vector<std::vector<float>> detParas;
  for (const std::string& rpnFile : rpnFiles) {
    std::vector<float> values;
    if (ReadRpnFile(rpnFile, values) != kSuccess) {
      LogError("read rpn para error");
      return kFailure;
    }
    if (CheckRpnShape(rpnInput, values.size()) != kSuccess) {
      return kFailure;
    }
    detParas.push_back(std::move(values));
  }
  for (const std::vector<float>& detPara : detParas) {
    if (SetDetParas(detPara) != kSuccess) {
      LogError("SetDetParas error");
      return kFailure;
    }
  }
  return kSuccess;
}

int ModelProcess::CheckRpnShape(size_t rpnInput, size_t count) {
  quilm_mdl_io_dims dims;
  if (QueryDims(kInputQueries, modelDesc.get(), rpnInput, dims) != 0 || dims.dim_count != 2) {
    LogError("quilm_mdl_get_input_dims rpn_data error!");
    return kFailure;
  }
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
