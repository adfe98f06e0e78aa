#include "runtime/host/nesting.h"

#include <algorithm>

namespace quilm_host {
namespace {

constexpr int kMaxDepth = 100;

struct Bytes {
  const uint8_t* data;
  size_t size;

  void Skip(size_t count) {
    const size_t skipped = std::min(count, size);
    data += skipped;
    size -= skipped;
  }

  uint64_t TakeNumber() {
    uint64_t value = 0;
    for (unsigned shift = 0; size > 0; shift += 7) {
      const uint8_t byte = *data;
      Skip(1);
      value |= shift < 64 ? static_cast<uint64_t>(byte & 0x7F) << shift : 0;
      if (byte < 0x80) {
        break;
      }
    }
    return value;
  }
};

// The type of the messages in a field; null when it holds something else.
const ProtobufCMessageDescriptor* MessageType(const ProtobufCMessageDescriptor& type, uint64_t id) {
  const auto* end = type.fields + type.n_fields;
  const auto* field = std::find_if(type.fields, end, [=](const auto& f) { return f.id == id; });
  return field == end || field->type != PROTOBUF_C_TYPE_MESSAGE
             ? nullptr
             : static_cast<const ProtobufCMessageDescriptor*>(field->descriptor);
}

bool IsDeeperThan(int levels, const ProtobufCMessageDescriptor& type, Bytes bytes) {
  while (bytes.size > 0) {
    const uint64_t tag = bytes.TakeNumber();
    switch (tag & 7) {
      case PROTOBUF_C_WIRE_TYPE_VARINT:
        bytes.TakeNumber();
        break;
      case PROTOBUF_C_WIRE_TYPE_64BIT:
        bytes.Skip(8);
        break;
      case PROTOBUF_C_WIRE_TYPE_32BIT:
        bytes.Skip(4);
        break;
      case PROTOBUF_C_WIRE_TYPE_LENGTH_PREFIXED: {
        const auto length = static_cast<size_t>(bytes.TakeNumber());
        const Bytes part{bytes.data, std::min(length, bytes.size)};
        const ProtobufCMessageDescriptor* inner = MessageType(type, tag >> 3);
        if (inner != nullptr && (levels == 0 || IsDeeperThan(levels - 1, *inner, part))) {
          return true;
        }
        bytes.Skip(length);
        break;
      }
      default:
        return false;
    }
  }
  return false;
}

}  // namespace

bool IsNestedTooDeeply(const ProtobufCMessageDescriptor& type, const uint8_t* data, size_t size) {
  return IsDeeperThan(kMaxDepth, type, {data, size});
}

}  // namespace quilm_host
