// Starts the runtime, tears it down, and puts a whole run between the two.
#include "app/sample_process.h"

#include <utility>

#include "app/attempt.h"
#include "app/stop_signals.h"
#include "base/log.h"
#include "base/status.h"
#include "profile/media_memory.h"
#include "profile/profile_record.h"
#include "profile/reports.h"
#include "runtime/release.h"
#include "runtime/values.h"

namespace quilmrun {
namespace {

// The report stands beside the configuration. A path without a separator is taken as a directory
// itself, and a backslash counts as one too.
std::string ReportPath(const std::string& quilmJsonPath) {
  return quilmJsonPath.substr(0, quilmJsonPath.find_last_of("/\\")) + "/memory_data.csv";
}

// Empties `handle` and destroys what it held, if anything.
void DestroyHandle(void*& handle, quilm_error (*destroy)(void*), const char* name) {
  void* const held = std::exchange(handle, nullptr);
  if (held != nullptr && Release([=] { return destroy(held); }) != 0) {
    LogError("destroy %s failed", name);
  }
  LogInfo("end to destroy %s", name);
}

}  // namespace

SampleProcess::SampleProcess(std::string modelPath, std::vector<std::string> inputFiles,
                             std::string quilmJsonPath, std::string outputPath)
    : modelPath(std::move(modelPath)),
      inputFiles(std::move(inputFiles)),
      quilmJsonPath(std::move(quilmJsonPath)),
      outputPath(std::move(outputPath)),
      reportPath_(ReportPath(this->quilmJsonPath)) {}

SampleProcess::~SampleProcess() {
  DestroyResource();
}

int SampleProcess::InitResource(const std::vector<std::string>& rpnFiles, uint32_t batchSize,
                                int32_t nlpTotalT, uint32_t profile) {
  this->rpnFiles = rpnFiles;
  this->batchSize = batchSize;
  this->nlpTotalT = nlpTotalT;
  this->profile = profile;

  // The difference is recorded after a failure too, since the report shows it in any case.
  const int32_t memoryBefore = GetMediaMemUsed();
  const quilm_error initResult = quilm_init(quilmJsonPath.c_str());
  profileRecord.quilmInitMem = MediaMemDifference(GetMediaMemUsed(), memoryBefore);
  if (initResult != 0) {
    LogError("quilm init failed");
    return kFailure;
  }
  LogInfo("quilm init success");

  if (quilm_rt_set_device(deviceId) != 0) {
    LogError("quilm open device %d failed", deviceId);
    return kFailure;
  }
  LogInfo("open device %d success", deviceId);

  if (quilm_rt_set_op_wait_timeout(kOpWaitTimeout) != 0) {
    LogError("quilm set op wait time failed");
    return kFailure;
  }
  LogInfo("set op wait time success");
  return CreateExecutionResources();
}

int SampleProcess::CreateExecutionResources() {
  if (quilm_rt_create_context(&context, deviceId) != 0) {
    context = nullptr;  // a library may set it and fail all the same
    LogError("quilm create context failed");
    return kFailure;
  }
  LogInfo("create context success");

  if (quilm_rt_create_stream(&stream) != 0) {
    stream = nullptr;
    LogError("quilm create stream failed");
    return kFailure;
  }
  LogInfo("create stream success");

  uint32_t runMode = kExpectedRunMode;
  if (quilm_rt_get_run_mode(&runMode) != 0) {
    LogError("quilm get run mode failed");
    return kFailure;
  }
  if (runMode != kExpectedRunMode) {
    LogError("quilm run mode failed");
    return kFailure;
  }
  LogInfo("get run mode success");
  return kSuccess;
}

// Nobody knows how far the start got. Device and runtime are therefore always shut down, and a
// library that has nothing to shut down refuses.
void SampleProcess::DestroyResource() {
  DestroyHandle(stream, quilm_rt_destroy_stream, "stream");
  DestroyHandle(context, quilm_rt_destroy_context, "context");

  if (Release([this] { return quilm_rt_reset_device(deviceId); }) != 0) {
    LogError("reset device failed");
  }
  LogInfo("end to reset device is %d", deviceId);

  if (Release(quilm_finalize) != 0) {
    LogError("finalize quilm failed");
  }
  LogInfo("end to finalize quilm");

  if (profile == kProfileOn) {
    PrintProfileSummary(profileRecord);
  }
  WriteMemoryDataCsv(profileRecord, reportPath_);
}

// The outcome is printed before `sample` is destroyed, whose messages follow it.
int RunSample(const RunOptions& options, ResolvedPaths paths) {
  CatchStopSignals();
  SampleProcess sample(std::move(paths.modelPath), std::move(paths.inputFiles),
                       std::move(paths.quilmJsonPath), options.outputPath);
  const auto initialise = [&] {
    return sample.InitResource(paths.rpnFiles, static_cast<uint32_t>(options.batchSize),
                               options.nlpTotalT, static_cast<uint32_t>(options.profile));
  };
  if (Attempt(initialise) != kSuccess) {
    LogError("sample init resource failed");
    return kFailure;
  }
  if (Attempt([&] { return sample.Process(); }) != kSuccess) {
    LogError("sample process failed");
    return kFailure;
  }
  LogInfo("execute sample success");
  return kSuccess;
}

}  // namespace quilmrun
