// The engine: ONNX Runtime.
#include <signal.h>

#include <algorithm>
#include <cstring>

#include "runtime/host/engine.h"
#include "runtime/host/onnx_runtime.h"

namespace quilm_host {
namespace {

// The engine's threads are born with all signals blocked: they are the tool's to receive.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t before_{};
};

bool ReadDims(const OrtTensorInfo* info, std::vector<int64_t>& dims) {
  size_t count = 0;
  if (!ort::Succeeded(ort::GetDimensionsCount::Call(info, &count))) {
    return false;
  }
  dims.resize(count);
  return ort::Succeeded(ort::GetDimensions::Call(info, dims.data(), count));
}

class OnnxEngine : public Engine {
 public:
  bool Create(const std::vector<uint8_t>& encoded, size_t threads) {
    ort::SessionOptions options;
    return ort::Make<ort::CreateCpuMemoryInfo>(memory_, 0, 0) &&
           ort::Make<ort::CreateSessionOptions>(options) &&
           ort::Succeeded(ort::SetIntraOpThreads::Call(options.get(), static_cast<int>(threads))) &&
           ort::Make<ort::CreateSession>(session_, ort::environment, encoded.data(), encoded.size(),
                                         options.get());
  }

  bool Describe(const std::vector<Tensor>& inputs, std::vector<Tensor>& outputs) {
    for (const Tensor& input : inputs) {
      inputs_.push_back({input.name, input.type->onnx, input.type->modelBytes});
    }
    for (size_t i = 0; i < outputs.size(); ++i) {
      if (!DescribeOutput(i, outputs[i])) {
        return false;
      }
      outputs_.push_back({outputs[i].name, outputs[i].type->onnx, outputs[i].type->modelBytes});
    }
    return true;
  }

  std::string Run(const std::vector<Array>& inputs, std::vector<Array>& outputs) override {
    return Compute(inputs, outputs) ? std::string() : ort::TakeProblems();
  }

 private:
  struct Slot {
    std::string name;
    int elementType;
    size_t elementBytes;
  };

  bool DescribeOutput(size_t index, Tensor& output) {
    ort::TypeInfo type;
    const OrtTensorInfo* info = nullptr;
    int elementType = 0;
    if (!ort::Make<ort::GetOutputTypeInfo>(type, session_.get(), index) ||
        !ort::Succeeded(ort::CastToTensorInfo::Call(type.get(), &info)) ||
        (info != nullptr && (!ort::Succeeded(ort::GetElementType::Call(info, &elementType)) ||
                             !ReadDims(info, output.dims)))) {
      return false;
    }
    output.type = FindElementType(elementType);
    if (output.type == nullptr) {
      ort::Keep("output \"" + output.name + "\" has a type that the interface cannot carry");
    }
    return output.type != nullptr;
  }

  bool Compute(const std::vector<Array>& inputs, std::vector<Array>& outputs) {
    std::vector<ort::Value> owners(inputs.size());
    std::vector<const OrtValue*> values;
    std::vector<const char*> inputNames;
    for (size_t i = 0; i < inputs.size(); ++i) {
      // The library reads through a pointer that is not const.
      auto* data = const_cast<unsigned char*>(inputs[i].bytes.data());
      if (!ort::Make<ort::CreateTensorWithData>(owners[i], memory_.get(), data,
                                                inputs[i].bytes.size(), inputs[i].dims.data(),
                                                inputs[i].dims.size(), inputs_[i].elementType)) {
        return false;
      }
      values.push_back(owners[i].get());
      inputNames.push_back(inputs_[i].name.c_str());
    }
    return ComputeNamed(inputNames, values, outputs);
  }

  bool ComputeNamed(const std::vector<const char*>& inputNames,
                    const std::vector<const OrtValue*>& values, std::vector<Array>& outputs) {
    std::vector<const char*> outputNames;
    for (const Slot& output : outputs_) {
      outputNames.push_back(output.name.c_str());
    }
    std::vector<OrtValue*> results(outputs_.size());
    const bool succeeded = ort::Succeeded(
        ort::Run::Call(session_.get(), nullptr, inputNames.data(), values.data(), values.size(),
                       outputNames.data(), outputNames.size(), results.data()));
    const std::vector<ort::Value> owners(results.begin(), results.end());
    outputs.assign(outputs_.size(), {});
    for (size_t i = 0; succeeded && i < outputs.size(); ++i) {
      if (!CopyResult(results[i], outputs_[i].elementBytes, outputs[i])) {
        return false;
      }
    }
    return succeeded;
  }

  static bool CopyResult(OrtValue* result, size_t elementBytes, Array& output) {
    ort::TensorInfo info;
    size_t count = 0;
    void* data = nullptr;
    if (!ort::Make<ort::GetTensorInfo>(info, result) || !ReadDims(info.get(), output.dims) ||
        !ort::Succeeded(ort::GetElementCount::Call(info.get(), &count)) ||
        !ort::Succeeded(ort::GetTensorData::Call(result, &data))) {
      return false;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    output.bytes.assign(bytes, bytes + count * elementBytes);
    return true;
  }

  std::vector<Slot> inputs_;
  std::vector<Slot> outputs_;
  ort::MemoryInfo memory_;
  ort::Session session_;
};

}  // namespace

std::unique_ptr<Engine> CreateEngine(const std::vector<uint8_t>& encoded,
                                     const std::vector<Tensor>& inputs,
                                     std::vector<Tensor>& outputs, size_t threads,
                                     std::string& problem) {
  const BlockedSignals blocked;
  problem = ort::Load();
  if (!problem.empty()) {
    return nullptr;
  }
  auto engine = std::make_unique<OnnxEngine>();
  if (!engine->Create(encoded, threads) || !engine->Describe(inputs, outputs)) {
    problem = ort::TakeProblems();
    return nullptr;
  }
  ort::TakeProblems();  // warnings that did not come to anything
  return engine;
}

}  // namespace quilm_host
