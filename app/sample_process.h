// One run of the tool: the runtime comes up, the model runs, the runtime goes down.
#ifndef QUILMRUN_APP_SAMPLE_PROCESS_H_
#define QUILMRUN_APP_SAMPLE_PROCESS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/options.h"
#include "runtime/quilm.h"

namespace quilmrun {

class ModelProcess;

/// Brings the runtime up on device 0, runs the model over all input groups, and tears everything
/// down when destroyed. At most one per process: the runtime can be initialised only once.
class SampleProcess {
 public:
  /// Keeps its arguments; calls nothing of the runtime.
  SampleProcess(std::string modelPath, std::vector<std::string> inputFiles,
                std::string quilmJsonPath, std::string outputPath);
  /// Runs DestroyResource().
  ~SampleProcess();
  SampleProcess(const SampleProcess&) = delete;
  SampleProcess& operator=(const SampleProcess&) = delete;

  /// Initialises the runtime, opens the device and creates context and stream. After a failure,
  /// DestroyResource() releases whatever exists by then.
  int InitResource(const std::vector<std::string>& rpnFiles, uint32_t batchSize, int32_t nlpTotalT,
                   uint32_t profile);

  /// Loads the model, runs it once per group of input files and unloads it; the first failing group
  /// ends the run. REQUIRES: InitResource() succeeded.
  int Process();

 private:
  /// Releases what exists and makes the reports. A step that fails does not keep the next ones from
  /// running. Needs no memory, and lets no exception out.
  void DestroyResource();

  /// Creates context and stream and checks the run mode.
  int CreateExecutionResources();

  /// Process() for a given model, which is destroyed whichever way this ends.
  int RunModel(ModelProcess& model);

  /// Cuts the input files into groups, one file per data input, and runs them in order. Fails when
  /// a group does, or when a signal asks to stop while groups are left.
  int RunGroups(ModelProcess& model);

  /// One inference: stages `files` from groupIndex * inputNum on, executes, dumps.
  int ProcessGroup(const std::vector<std::string>& files, ModelProcess& model, size_t groupIndex,
                   size_t inputNum);

  std::string modelPath;
  std::vector<std::string> inputFiles;
  std::vector<std::string> inputNames;  // of the model's data inputs, in input order
  std::string quilmJsonPath;
  std::string outputPath;
  int32_t deviceId = 0;
  std::vector<std::string> rpnFiles;
  uint32_t batchSize = 0;
  int32_t nlpTotalT = -1;
  uint32_t profile = 0;  // 1 means on
  quilm_rt_context context = nullptr;
  quilm_rt_stream stream = nullptr;
  std::string reportPath_;  // built at the start: the teardown may find no memory for it
};

/// Performs one complete run, teardown and reports included; returns the exit status. A signal that
/// asks to stop ends the run after the inference in progress; the run has failed if groups are
/// left. Takes over the paths: a list of input files may be long, and is kept once.
int RunSample(const RunOptions& options, ResolvedPaths paths);

}  // namespace quilmrun

#endif  // QUILMRUN_APP_SAMPLE_PROCESS_H_
