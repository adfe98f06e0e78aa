#include "runtime/host/state.h"

namespace quilm_host {

State state;
const char* currentCall = "";

std::optional<int64_t> TakeFault() {
  const uint64_t count = ++state.callCounts[currentCall];
  if (state.settings.trace) {
    Explain("call: %s %llu", currentCall, static_cast<unsigned long long>(count));
  }
  for (const Fault& fault : state.settings.faults) {
    if (fault.function == currentCall && fault.call == count) {
      return fault.code;
    }
  }
  return std::nullopt;
}

bool CheckInitialized() {
  // After a failed start the reason has been told, and teardown calls are only to be expected.
  if (!state.initialized && !state.initFailed) {
    Explain("%s before quilm_init", currentCall);
  }
  return state.initialized;
}

}  // namespace quilm_host
