// The engine: ONNX Runtime, by its C interface.
#include <signal.h>

#include <iostream>
#include <utility>

#include "runtime/host/model.h"
#include "runtime/host/onnx_functions.h"

namespace quilm_host {
namespace {

using onnx::Check;
using onnx::Handle;
using onnx::Library;
using onnx::Make;

std::vector<int64_t> ReadDims(const onnx::TensorInfo* info) {
  size_t count = 0;
  Check(Library().getDimensionsCount(info, &count));
  std::vector<int64_t> dims(count);
  Check(Library().getDimensions(info, dims.data(), count));
  return dims;
}

Handle<onnx::SessionOptions> MakeOptions(size_t threads) {
  auto options = Make(Library().releaseSessionOptions, Library().createSessionOptions);
  Check(Library().setIntraOpNumThreads(options.get(), static_cast<int>(threads)));
  // Threads that spin between two executions take processor time from the tool, which reads and
  // writes files then.
  Check(Library().addSessionConfigEntry(options.get(), "session.intra_op.allow_spinning", "0"));
  return options;
}

class OnnxEngine {
 public:
  OnnxEngine(std::string_view file, const std::vector<Tensor>& inputs, std::vector<Tensor>& outputs,
             size_t threads)
      : inputs_(inputs),
        memory_(Make(Library().releaseMemoryInfo, Library().createCpuMemoryInfo, 0, 0)),
        session_(MakeSession(file, threads)) {
    for (size_t i = 0; i < outputs.size(); ++i) {
      DescribeOutput(i, outputs[i]);
    }
    outputs_ = outputs;
    for (const auto* tensors : {&inputs_, &outputs_}) {
      for (const Tensor& tensor : *tensors) {
        names_.push_back(tensor.name.c_str());
      }
    }
  }

  std::vector<Array> Run(const std::vector<Array>& inputs) const {
    std::vector<Handle<onnx::Value>> owners;
    std::vector<const onnx::Value*> values;
    for (size_t i = 0; i < inputs.size(); ++i) {
      const Array& input = inputs[i];
      owners.push_back(Make(Library().releaseValue, Library().createTensorWithDataAsOrtValue,
                            memory_.get(), input.bytes.data(), input.bytes.size(),
                            input.dims.data(), input.dims.size(), inputs_[i].type->onnx));
      values.push_back(owners.back().get());
    }
    std::vector<onnx::Value*> results(outputs_.size());
    onnx::ForgetProblems();  // warnings that came to nothing
    Check(Library().run(session_.get(), nullptr, names_.data(), values.data(), values.size(),
                        names_.data() + values.size(), results.size(), results.data()));
    for (onnx::Value* result : results) {
      owners.emplace_back(result, Library().releaseValue);
    }
    std::vector<Array> outputs;
    outputs.reserve(results.size());
    for (size_t i = 0; i < results.size(); ++i) {
      outputs.push_back(CopyResult(results[i], outputs_[i].type->modelBytes));
    }
    return outputs;
  }

 private:
  static Handle<onnx::Session> MakeSession(std::string_view file, size_t threads) {
    const auto options = MakeOptions(threads);
    onnx::ForgetProblems();  // what the library said of the machine's devices
    return Make(Library().releaseSession, Library().createSessionFromArray, onnx::TheEnvironment(),
                file.data(), file.size(), options.get());
  }

  void DescribeOutput(size_t index, Tensor& output) {
    const auto type =
        Make(Library().releaseTypeInfo, Library().sessionGetOutputTypeInfo, session_.get(), index);
    const onnx::TensorInfo* info = nullptr;
    int elementType = 0;
    Check(Library().castTypeInfoToTensorInfo(type.get(), &info));
    if (info != nullptr) {
      Check(Library().getTensorElementType(info, &elementType));
      output.dims = ReadDims(info);
    }
    output.type = FindElementType(elementType);
    Require(output.type != nullptr, "output", Quoted(output.name),
            " is of a type that has no code");
  }

  static Array CopyResult(onnx::Value* result, size_t elementBytes) {
    const auto info = Make(Library().releaseTensorTypeAndShapeInfo, Library().getTensorTypeAndShape,
                           std::as_const(result));
    Array output{ReadDims(info.get()), {}};
    auto size = static_cast<int64_t>(elementBytes);
    for (const int64_t dim : output.dims) {
      size *= dim;
    }
    void* data = nullptr;
    Check(Library().getTensorMutableData(result, &data));
    const auto* bytes = static_cast<const unsigned char*>(data);
    output.bytes.assign(bytes, bytes + size);
    return output;
  }

  std::vector<Tensor> inputs_;
  std::vector<Tensor> outputs_;
  std::vector<const char*> names_;  // the inputs', then the outputs'
  Handle<onnx::MemoryInfo> memory_;
  Handle<onnx::Session> session_;
};

// Builds of the library that share ONNX's schemas with another library register them twice, and
// complain of each on the C++ error stream when the first session is created. While an object of
// this class exists the stream's text is collected; at the end all but these complaints is passed
// on.
class SchemaComplaintFilter {
 public:
  SchemaComplaintFilter() : stream_(std::cerr.rdbuf(collected_.rdbuf())) {}
  SchemaComplaintFilter(const SchemaComplaintFilter&) = delete;
  SchemaComplaintFilter& operator=(const SchemaComplaintFilter&) = delete;

  ~SchemaComplaintFilter() {
    std::cerr.rdbuf(stream_);
    bool isComplaint = false;  // which an empty line follows
    for (std::string line; std::getline(collected_, line);) {
      isComplaint = line.rfind("Schema error: ", 0) == 0 || (isComplaint && line.empty());
      if (!isComplaint) {
        std::cerr << line << '\n';
      }
    }
  }

 private:
  std::stringstream collected_;
  std::streambuf* stream_;
};

}  // namespace

Engine CreateEngine(std::string_view file, const std::vector<Tensor>& inputs,
                    std::vector<Tensor>& outputs, size_t threads) {
  // The engine's threads inherit that all signals are blocked: they are the tool's to receive.
  sigset_t before;
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  const auto unblock = [](sigset_t* mask) { pthread_sigmask(SIG_SETMASK, mask, nullptr); };
  const std::unique_ptr<sigset_t, decltype(unblock)> blocked(&before, unblock);
  const SchemaComplaintFilter filter;
  const auto engine = std::make_shared<OnnxEngine>(file, inputs, outputs, threads);
  return [engine](const std::vector<Array>& arrays) { return engine->Run(arrays); };
}

}  // namespace quilm_host
