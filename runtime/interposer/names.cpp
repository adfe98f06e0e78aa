#include "runtime/interposer/interposer.h"

namespace quilm_interposer {

#define QUILM_NAME(arity, function) #function,
const char* const kNames[kCallCount] = {QUILM_CALLS(QUILM_NAME)};
#undef QUILM_NAME

}  // namespace quilm_interposer
