// The output dump: any description of an output, and the bytes that the model left in its buffer.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "base/status.h"
#include "model/model_process.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/tensor_fuzz.h"

using namespace quilmrun;       // NOLINT: what is tested
using namespace quilmrun_fuzz;  // NOLINT

namespace {

// A directory of this process's own, in memory where it can be.
class OutputDirectory {
 public:
  OutputDirectory() {
    path_ = access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : "/tmp/";
    path_ += "quilmrun_dump_fuzz_" + std::to_string(getpid());
    std::filesystem::create_directory(path_);
  }
  ~OutputDirectory() { std::filesystem::remove_all(path_); }
  OutputDirectory(const OutputDirectory&) = delete;
  OutputDirectory& operator=(const OutputDirectory&) = delete;

  const std::string& Path() const { return path_; }

  // The floats that a dump has left in its binary file, if any; every file is removed.
  std::optional<std::vector<float>> TakeBinaryFile() const;

 private:
  std::string path_;
};

// True when rows overlap so often that a dump takes too long for a test. Longer rows are refused.
bool OverlapsOften(const OddTensor& tensor, uint32_t batchSize) {
  constexpr int64_t kLongestRow = 4096;
  constexpr uint64_t kMostValues = 8192;
  if (tensor.stride == 0 || tensor.dims.empty()) {
    return false;
  }
  const int64_t row = tensor.dims.back();
  return row > 0 && row <= kLongestRow &&
         tensor.size / tensor.stride * batchSize > kMostValues / static_cast<uint64_t>(row);
}

struct Type {
  size_t elementSize;  // bytes, as the runtime says
  size_t readSize;     // bytes that an element is read as
  float (*read)(const unsigned char* place);
};

template <typename T>
float Read(const unsigned char* place) {
  T element;
  std::memcpy(&element, place, sizeof(element));
  return static_cast<float>(element);
}

// The odd runtime's types; 5 is narrower than a byte, 8 a byte that nobody knows as an integer.
Type TypeOf(int32_t code) {
  switch (code) {
    case 1:
    case 7:
      return {2, 2, Read<uint16_t>};
    case 2:
      return {1, 1, Read<int8_t>};
    case 4:
      return {1, 1, Read<uint8_t>};
    case 6:
      return {2, 2, Read<int16_t>};
    default:
      return {quilm_data_type_size(code) / 8, sizeof(float), Read<float>};
  }
}

// The values that a description stands for, element by element; nothing when it is not to be
// trusted.
std::optional<std::vector<float>> Expected(const OddTensor& tensor, uint32_t batchSize,
                                           const std::vector<unsigned char>& buffer) {
  const Type type = TypeOf(tensor.type);
  if (tensor.dims.empty() || tensor.dims.back() <= 0 || type.elementSize == 0) {
    return std::nullopt;
  }
  using Wide = __int128;
  const Wide rows = Wide{tensor.size / tensor.stride} * batchSize;
  const Wide pitch = Wide{tensor.stride / type.elementSize};
  const Wide end = ((rows - 1) * pitch + tensor.dims.back()) * Wide{type.readSize};
  if (rows > 0 && end > Wide{buffer.size()}) {  // rows may overlap, but not go beyond the buffer
    return std::nullopt;
  }
  std::vector<float> values;
  for (Wide row = 0; row < rows; ++row) {
    for (Wide i = 0; i < tensor.dims.back(); ++i) {
      values.push_back(type.read(&buffer[static_cast<size_t>(row * pitch + i) * type.readSize]));
    }
  }
  return values;
}

std::optional<std::vector<float>> OutputDirectory::TakeBinaryFile() const {
  std::optional<std::vector<float>> values;
  for (const auto& entry : std::filesystem::directory_iterator(path_ + "/0")) {
    if (entry.path().extension() == ".bin") {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string bytes((std::istreambuf_iterator<char>(file)), {});
      values.emplace(bytes.size() / sizeof(float));
      std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(values->data()));
    }
    std::filesystem::remove(entry.path());
  }
  return values;
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  static MemoryFile file;
  static const OutputDirectory kDirectory;
  FuzzedDataProvider data(bytes, size);
  const OddTensor output = TakeTensor(data);
  const auto batchSize = static_cast<uint32_t>(TakeNumber(data));
  if (!IsTestable(batchSize, output.size) || OverlapsOften(output, batchSize)) {
    return 0;
  }
  // Execution copies input 0 to output 0, so an input of as many plain bytes fills the output.
  const auto inputSize = static_cast<int64_t>(output.size);
  SetModel({{"x", 4, output.size, output.size, {inputSize}}, {}, {}}, {output}, 0);
  ModelProcess model({}, batchSize, -1, 0);
  std::vector<std::string> names;
  model.CreateDesc(names);
  if (model.CreateOutput() != kSuccess) {
    return 0;
  }
  std::vector<unsigned char> buffer = data.ConsumeRemainingBytes<unsigned char>();
  buffer.resize(batchSize * output.size);
  const std::string& path = file.Hold({reinterpret_cast<char*>(buffer.data()), buffer.size()});
  Require(model.InitInput() == kSuccess && model.CreateInputBuf({path}) == kSuccess);
  Require(model.Execute() == kSuccess);
  model.DumpModelOutput(kDirectory.Path());

  const auto written = kDirectory.TakeBinaryFile();
  const auto expected = Expected(output, batchSize, buffer);
  Require(written.has_value() == expected.has_value());
  Require(!written.has_value() || SameBits(*written, *expected));
  return 0;
}
