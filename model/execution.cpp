// Runs one inference on filled datasets: batch size, number of frames, execution.
#include "base/clock.h"
#include "base/log.h"
#include "base/status.h"
#include "model/model_process.h"
#include "runtime/tensor_description.h"
#include "runtime/values.h"

namespace quilmrun {

int ModelProcess::SetDynamicBatchSize() {
  const quilm_error result =
      quilm_mdl_set_dynamic_batch_size(modelId, input.get(), kBatchSizeIndex, batchSize);
  if (result != 0) {
    LogError("quilm_mdl_set_dynamic_batch_size fail! ret = %d", result);
    return kFailure;
  }
  LogWarn("quilm_mdl_set_dynamic_batch_size set batchsize to %u", batchSize);
  return kSuccess;
}

int ModelProcess::SetNlpTotalT() {
  // Neither the user nor the first input of a recurrent model has given one.
  if (nlpTotalT <= 0) {
    return kSuccess;
  }
  int32_t netType = 0;
  if (QueryNetType(modelId, netType) != kSuccess) {
    return kFailure;
  }
  LogInfo("quilm_ext_get_mdl_net_type model type: %d", netType);
  if (netType != kRecurrentNetType) {
    return kSuccess;
  }
  const quilm_error result = quilm_mdl_set_total_t(modelId, input.get(), nlpTotalT);
  if (result != 0) {
    LogError("quilm_mdl_set_total_t failed, ret = %d", result);
    return kFailure;
  }
  LogWarn("quilm_mdl_set_total_t set total_t to %u", static_cast<uint32_t>(nlpTotalT));
  return kSuccess;
}

int ModelProcess::Execute() {
  if (SetNlpTotalT() != kSuccess) {
    LogError("Set nlpTotalt failed");
    return kFailure;
  }
  if (profile != kProfileOn) {
    profileRecord.loopCount = 1;
  }
  quilm_rt_set_op_wait_timeout(kOpWaitTimeout);  // a refusal at the start has ended the run already

  quilm_error result = 0;
  const double start = NowMs();
  for (uint32_t i = 0; i < profileRecord.loopCount; ++i) {
    // A failed repetition costs a time, not the outputs: those of the last one are dumped.
    result = quilm_mdl_execute(modelId, input.get(), output.get());
  }
  profileRecord.executeTime = NowMs() - start;
  if (result != 0) {
    LogError("execute model failed, modelId is %u", modelId);
    return kFailure;
  }
  ++executeCount;
  LogInfo("model execute success");
  return kSuccess;
}

}  // namespace quilmrun
