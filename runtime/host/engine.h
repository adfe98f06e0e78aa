// What executes a graph. Everything that knows ONNX Runtime stands behind this interface;
// identity_engine.cpp takes its place where a real engine cannot run or would only cost time.
#ifndef QUILMRUN_RUNTIME_HOST_ENGINE_H_
#define QUILMRUN_RUNTIME_HOST_ENGINE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "runtime/host/tensor.h"

namespace quilm_host {

class Engine {
 public:
  virtual ~Engine() = default;

  /// Computes `outputs` from `inputs`, both in graph order; the first dimension of inputs may
  /// differ from the described one where the model leaves it open. Returns an empty string, or what
  /// went wrong, one problem a line.
  virtual std::string Run(const std::vector<Array>& inputs, std::vector<Array>& outputs) = 0;
};

/// Builds the engine of an encoded ONNX model, which is not needed afterwards, on `threads`
/// threads. Inputs and outputs are named and typed; what the engine knows of the outputs'
/// dimensions is filled in. Null, with the reasons in `problem`, one a line, when the engine does
/// not take the model.
std::unique_ptr<Engine> CreateEngine(const std::vector<uint8_t>& encoded,
                                     const std::vector<Tensor>& inputs,
                                     std::vector<Tensor>& outputs, size_t threads,
                                     std::string& problem);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_ENGINE_H_
