// Takes the data of an inference from a group of input files and from the RPN files.
#include "base/log.h"
#include "base/status.h"
#include "input/rpn_data.h"
#include "input/staging.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"

namespace quilmrun {

int ModelProcess::CreateInputBuf(const std::vector<std::string>& group) {
  for (size_t i = 0; i < group.size(); ++i) {
    LogInfo("start to process file:%s", group[i].c_str());
    const auto index = static_cast<int32_t>(i);
    size_t size = 0;
    size_t stride = 0;
    quilm_mdl_io_dims dims;
    if (GetInputStrideParam(index, size, stride, dims) != kSuccess) {
      LogError("GetStrideParam error");
      return kFailure;
    }
    if (CheckElementSize(GetInputDataSize(index)) != kSuccess) {
      return kFailure;
    }
    DeviceMemory memory =
        GetPicDeviceBuffer(group[i], dims, modelDesc.get(), i, batchSize, modelId, nlpTotalT);
    if (memory == nullptr) {
      LogError("get pic device buffer failed");
      return kFailure;
    }
    if (CreateInput(std::move(memory), size, static_cast<int32_t>(stride)) != kSuccess) {
      return kFailure;
    }
  }
  return kSuccess;
}

int ModelProcess::SetRpnData() {
  const size_t rpnInput = GetInputNum() - 1;  // the last input that carries data
  std::vector<std::vector<float>> detParas;
  quilm_mdl_io_dims dims;
  for (const std::string& rpnFile : rpnFiles) {
    std::vector<float> values;
    if (ReadRpnFile(rpnFile, values) != kSuccess) {
      LogError("read rpn para error");
      return kFailure;
    }
    if (QueryDims(kInputQueries, modelDesc.get(), rpnInput, dims) != 0 || dims.dim_count != 2) {
      LogError("quilm_mdl_get_input_dims rpn_data error!");
      return kFailure;
    }
    if (CheckRpnShape(dims, values.size(), rpnHeight, rpnWidth) != kSuccess) {
      return kFailure;
    }
    detParas.push_back(std::move(values));
  }
  // Buffers are made when all files have passed: a file that is refused then leaves no buffer of an
  // earlier one in the dataset.
  for (const std::vector<float>& detPara : detParas) {
    if (SetDetParas(detPara) != kSuccess) {
      LogError("SetDetParas error");
      return kFailure;
    }
  }
  return kSuccess;
}

}  // namespace quilmrun
