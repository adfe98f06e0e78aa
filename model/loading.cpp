// Loads the model from its file and unloads it.
#include <utility>

#include "base/clock.h"
#include "base/log.h"
#include "base/status.h"
#include "input/utils.h"
#include "model/model_process.h"
#include "profile/media_memory.h"
#include "runtime/release.h"

namespace quilmrun {

ModelProcess::ModelProcess(std::vector<std::string> rpnFiles, uint32_t batchSize, int32_t nlpTotalT,
                           uint32_t profile)
    : batchSize(batchSize), nlpTotalT(nlpTotalT), rpnFiles(std::move(rpnFiles)), profile(profile) {}

// The model goes first, then its description, then what it was executed on: the runtime may still
// refer to the datasets while the model is loaded.
ModelProcess::~ModelProcess() {
  Unload();
  DestroyDesc();
  DestroyInput();
  DestroyOutput();
}

int ModelProcess::LoadModelFromFileWithMem(const std::string& modelPath) {
  const double readStart = NowMs();
  uint32_t fileSize = 0;
  modelMemPtr = ReadBinFile(modelPath, fileSize);
  profileRecord.readModelFileTime = NowMs() - readStart;
  modelMemSize = fileSize;

  const int32_t memoryBefore = GetMediaMemUsed();
  const double loadStart = NowMs();
  // Without a file there is nothing to load. The rest is measured and reported all the same, since
  // the reports show these figures after a failure too.
  const bool loaded = modelMemPtr != nullptr &&
                      quilm_mdl_load_from_mem(modelMemPtr.get(), modelMemSize, &modelId) == 0;
  profileRecord.modelLoadTime = NowMs() - loadStart;
  const int sizeResult = GetFileSize(modelPath, profileRecord.omSize);
  profileRecord.modelInfoMem = MediaMemDifference(GetMediaMemUsed(), memoryBefore);

  if (!loaded || sizeResult != kSuccess) {
    modelMemPtr.reset();
    LogError("load model from file failed, model file is %s", modelPath.c_str());
    return kFailure;
  }
  loadFlag = true;
  LogInfo("load model %s success", modelPath.c_str());
  return kSuccess;
}

void ModelProcess::Unload() {
  if (!loadFlag) {
    LogWarn("no model had been loaded, unload failed");
    return;
  }
  const quilm_error result = Release([this] { return quilm_mdl_unload(modelId); });
  if (result != 0) {
    LogError("unload model failed, modelId is %u", modelId);
  }
  // A model that the runtime keeps is still no use to anybody: what belongs to it goes.
  DestroyDesc();
  modelMemPtr.reset();
  modelMemSize = 0;
  loadFlag = false;
  if (result == 0) {
    LogInfo("unload model success, modelId is %u", modelId);
  }
}

}  // namespace quilmrun
