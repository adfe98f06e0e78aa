// Drives the model once the runtime is up: loads it and runs it over every group of input files.
#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "app/attempt.h"
#include "app/sample_process.h"
#include "app/stop_signals.h"
#include "base/log.h"
#include "base/status.h"
#include "input/input_list.h"
#include "input/utils.h"
#include "model/model_process.h"

namespace quilmrun {
namespace {

// Replaces every path by its resolved form; stops at the first of bad length. A list may be long,
// and no group runs once a signal has asked to stop: the rest of the list then stays as it is.
int ResolvePaths(std::vector<std::string>& paths) {
  for (std::string& path : paths) {
    if (StopSignalReceived()) {
      break;
    }
    if (ResolvePath(path, path) != kSuccess) {
      return kFailure;
    }
  }
  return kSuccess;
}

// Releases the input dataset of an inference at the end of its scope. The dataset of a group that
// stops before its execution is left to the model, which releases it after the description.
class InputOwner {
 public:
  explicit InputOwner(ModelProcess& model) : model_(model) {}
  ~InputOwner() { model_.DestroyInput(); }
  InputOwner(const InputOwner&) = delete;
  InputOwner& operator=(const InputOwner&) = delete;

 private:
  ModelProcess& model_;
};

}  // namespace

int SampleProcess::Process() {
  ModelProcess model(rpnFiles, batchSize, nlpTotalT, profile);
  return Attempt([&] { return RunModel(model); });
}

int SampleProcess::RunModel(ModelProcess& model) {
  if (model.LoadModelFromFileWithMem(modelPath) != kSuccess) {
    LogError("execute LoadModelFromFileWithMem failed");
    return kFailure;
  }
  // A missing description is reported below: the paths are shown and checked in any case.
  const int descResult = model.CreateDesc(inputNames);
  GroupInputsByName(inputFiles, inputNames);
  if (ResolvePaths(inputFiles) != kSuccess) {
    return kFailure;
  }
  if (descResult != kSuccess) {
    LogError("execute CreateDesc failed");
    return kFailure;
  }
  if (model.CreateOutput() != kSuccess) {
    LogError("execute CreateOutput failed");
    return kFailure;
  }
  return RunGroups(model);
}

int SampleProcess::RunGroups(ModelProcess& model) {
  const size_t modelInputs = model.GetInputNum();
  if (rpnFiles.size() > modelInputs) {
    LogWarn("%zu rpn files, but the model has %zu inputs: nothing to execute", rpnFiles.size(),
            modelInputs);
  }
  // Every RPN file takes the place of one input, so that the list names files for the others only.
  const size_t inputNum = modelInputs - std::min(modelInputs, rpnFiles.size());
  LogInfo("Model inputNum: %zu", inputNum);
  const size_t iterations = inputNum == 0 ? 0 : inputFiles.size() / inputNum;
  LogInfo("Model Iters : %zu", iterations);
  for (size_t group = 0; group < iterations; ++group) {
    if (StopSignalReceived()) {
      LogWarn("stopped by a signal: %zu of %zu groups done", group, iterations);
      return kFailure;
    }
    if (ProcessGroup(inputFiles, model, group, inputNum) != kSuccess) {
      return kFailure;
    }
  }
  return kSuccess;
}

int SampleProcess::ProcessGroup(const std::vector<std::string>& files, ModelProcess& model,
                                size_t groupIndex, size_t inputNum) {
  if (model.InitInput() != kSuccess) {
    LogError("execute InitInput failed");
    return kFailure;
  }
  const auto first = files.begin() + static_cast<std::ptrdiff_t>(groupIndex * inputNum);
  const std::vector<std::string> group(first, first + static_cast<std::ptrdiff_t>(inputNum));
  if (model.CreateInputBuf(group) != kSuccess) {
    LogError("CreateInputBuf failed");
    return kFailure;
  }
  if (model.SetDynamicBatchSize() != kSuccess) {
    LogError("Set batch size failed");
    return kFailure;
  }
  if (model.SetRpnData() != kSuccess) {
    LogError("Set rpn data failed");
    return kFailure;
  }
  if (model.CreateTaskBufAndWorkBuf() != kSuccess) {
    LogError("CreateTaskBufAndWorkBuf failed");
    return kFailure;
  }
  const InputOwner owner(model);
  if (model.Execute() != kSuccess) {
    LogError("execute inference failed");
    return kFailure;
  }
  model.DumpModelOutput(outputPath);
  return kSuccess;
}

}  // namespace quilmrun
