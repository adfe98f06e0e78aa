#include "runtime/forward/forward.h"

namespace quilm_forward {

#define QUILM_NAME(arity, function) #function,
const char* const kNames[kCallCount] = {QUILM_CALLS(QUILM_NAME)};
#undef QUILM_NAME

}  // namespace quilm_forward
