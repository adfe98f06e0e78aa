// What executes a graph. Everything that knows OpenCV stands behind this interface, in engine.cpp;
// identity_engine.cpp takes its place where there is no OpenCV.
#ifndef QUILMRUN_RUNTIME_HOST_ENGINE_H_
#define QUILMRUN_RUNTIME_HOST_ENGINE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "runtime/host/onnx_model.h"
#include "runtime/host/tensor.h"

namespace quilm_host {

/// One batch of a tensor in device memory, rows padded.
struct TensorData {
  const Tensor* tensor;
  unsigned char* data;
  size_t validElements = SIZE_MAX;  // of an input; those behind count as 0
};

class Engine {
 public:
  virtual ~Engine() = default;

  /// Computes one batch: `inputs` in graph order, the model's `outputs` likewise. The engine counts
  /// in 32-bit floats; integers are rounded to the nearest (ties to even) and saturated at the
  /// outputs. Integers that floats cannot carry exactly are refused, and so are infinity and NaN as
  /// inputs. Returns an empty string, or what went wrong.
  virtual std::string Run(const std::vector<TensorData>& inputs,
                          const std::vector<TensorData>& outputs) = 0;
};

/// Builds the engine of a model; null, with the reason in `problem`, when the graph is not one that
/// it can execute.
std::unique_ptr<Engine> CreateEngine(const OnnxModel& model, std::string& problem);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_ENGINE_H_
