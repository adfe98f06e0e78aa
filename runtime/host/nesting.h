// How deeply messages of a protocol buffer lie in each other, found out before it is decoded: the
// decoder calls itself for each level and would run out of stack.
#ifndef QUILMRUN_RUNTIME_HOST_NESTING_H_
#define QUILMRUN_RUNTIME_HOST_NESTING_H_

#include <protobuf-c/protobuf-c.h>

#include <cstddef>
#include <cstdint>

namespace quilm_host {

/// True when messages lie in each other more than 100 levels deep, the limit of protocol buffers'
/// own decoders. What is no message of the type is left for the decoder to refuse.
bool IsNestedTooDeeply(const ProtobufCMessageDescriptor& type, const uint8_t* data, size_t size);

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_NESTING_H_
