// The model of a run, with everything that the tool holds of it in the runtime.
#ifndef QUILMRUN_MODEL_MODEL_PROCESS_H_
#define QUILMRUN_MODEL_MODEL_PROCESS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "profile/profile_record.h"
#include "runtime/handles.h"
#include "runtime/quilm.h"

namespace quilmrun {

class OutputFile;
struct OutputRows;

/// Owns the loaded model, the device memory of its file, its description and both datasets; each
/// release operation may be called twice. Operations return kSuccess or kFailure and print what
/// went wrong.
///
/// A model's last two inputs are the task buffer and the work buffer, memory that the runtime
/// needs; the inputs before them carry data. An input dataset is filled in that order.
///
/// Calling order: LoadModelFromFileWithMem, CreateDesc, CreateOutput; then per inference InitInput,
/// CreateInputBuf, SetDynamicBatchSize, SetRpnData, CreateTaskBufAndWorkBuf, Execute,
/// DumpModelOutput, DestroyInput.
class ModelProcess {
 public:
  /// `batchSize` multiplies every per-batch size, until the staging of an input file resets it.
  /// `nlpTotalT` above 0 is applied to recurrent models. `profile` 1 repeats executions for timing.
  ModelProcess(std::vector<std::string> rpnFiles, uint32_t batchSize, int32_t nlpTotalT,
               uint32_t profile);
  /// Unloads and releases everything.
  ~ModelProcess();
  ModelProcess(const ModelProcess&) = delete;
  ModelProcess& operator=(const ModelProcess&) = delete;

  /// Reads the model file into device memory and loads it from there. Records read and load time,
  /// file size and media memory in the profile record, after a failure too.
  int LoadModelFromFileWithMem(const std::string& modelPath);

  /// Unloads the model and releases its description and memory; warns when none is loaded.
  void Unload();

  /// Fetches the model's description, prints it, appends the names of the data inputs to
  /// `inputNames` and records the sizes in the profile record. REQUIRES: a loaded model.
  int CreateDesc(std::vector<std::string>& inputNames);
  void DestroyDesc();

  /// The number of inputs that carry data. Wraps around when the model has fewer than two inputs.
  size_t GetInputNum() const;

  /// Builds the output dataset, each buffer batchSize times the output's size, all bytes 0.
  int CreateOutput();
  void DestroyOutput();

  /// Creates an empty input dataset.
  int InitInput();
  void DestroyInput();

  /// Stages file i of `group` into a new device buffer for input i and appends it. May change batch
  /// size and total_t to what the files hold, for this and all later inferences.
  int CreateInputBuf(const std::vector<std::string>& group);

  /// Reads and checks all RPN files, then appends one parameter buffer for each. Does nothing
  /// without RPN files.
  int SetRpnData();

  /// Appends every input that the dataset still lacks, as zeroed memory: normally the task buffer
  /// and the work buffer.
  int CreateTaskBufAndWorkBuf();

  /// Tells the runtime how many batches the input dataset carries. A warning shows the number.
  int SetDynamicBatchSize();

  /// Runs the model once, or profileRecord.loopCount times when profiling, and records the time.
  /// The last execution decides the result.
  int Execute();

  /// Writes every output to outputPath/<run index>/, as text and as raw floats;
  /// output/dump_format.h says in which format. Reports what cannot be written and goes on with the
  /// next output.
  void DumpModelOutput(const std::string& outputPath);

 private:
  void PrintModelInfo(std::vector<std::string>& inputNames);

  /// Layout of one input: `size` in bytes of all batches, `stride` in bytes, and dims. None of them
  /// is 0 on success.
  int GetInputStrideParam(int32_t index, size_t& size, size_t& stride, quilm_mdl_io_dims& dims);

  /// The same for an output, with `size` for one batch.
  int GetOutputStrideParam(int32_t index, size_t& size, size_t& stride, quilm_mdl_io_dims& dims);

  /// Bytes per element; 0 means unusable, which the caller reports.
  size_t GetInputDataSize(int32_t index) const;
  size_t GetOutputDataSize(int32_t index) const;

  /// Appends `memory`, as `size` bytes with rows `stride` bytes apart, to the input dataset, which
  /// then owns it; on failure it is freed.
  int CreateInput(DeviceMemory memory, size_t size, int32_t stride);

  int CreateOutputBuffer(size_t index);
  int CreateTaskOrWorkBuf(int32_t index);

  /// Appends a buffer of RPN parameters, with the size and stride of input 1. Up to 4 values
  /// (single class) stand at its start; 4 * rpnWidth values (multi class) as 4 rows, one stride
  /// apart.
  int SetDetParas(const std::vector<float>& detPara);

  /// Hands total_t to a recurrent model; does nothing unless it is above 0.
  int SetNlpTotalT();

  /// Writes one output to `fileBase` + ".float" and + ".bin". Its data type code decides as what
  /// its elements are read.
  void DumpOutputByType(const std::string& fileBase, size_t index);
  template <typename T>
  void WriteOutputFiles(const std::string& fileBase, size_t index);

  /// Write one file of output `index`, whose elements are stored as T. No file is created when
  /// there is nothing to put into it.
  template <typename T>
  void WriteOutputText(const std::string& path, size_t index);
  template <typename T>
  void WriteOutputBinary(const std::string& path, size_t index);
  template <typename T>
  void WriteOutput(const std::string& path, size_t index,
                   void (*write)(const std::vector<float>&, const OutputFile&));

  /// Appends the values of output `index` to `values`, without the padding of its rows.
  template <typename T>
  int GetOutputWithOutStride(std::vector<float>& values, size_t index);

  /// Finds out where the rows of output `index` lie in device memory, and how long they are.
  int LocateOutput(size_t index, OutputRows& rows);
  int LayOutRows(size_t index, OutputRows& rows);

  uint32_t batchSize;
  int32_t nlpTotalT;
  std::vector<std::string> rpnFiles;
  uint32_t profile;
  uint32_t executeCount = 0;  // successful inferences so far
  uint32_t modelId = 0;
  uint64_t modelMemSize = 0;  // bytes
  DeviceMemory modelMemPtr;   // the model file, from its read to the unload
  bool loadFlag = false;
  Description modelDesc;
  Dataset input;
  Dataset output;
  std::vector<size_t> outputSizes_;  // bytes allocated for each output
  uint32_t rpnHeight = 0;
  uint32_t rpnWidth = 0;
};

/// Adds the sizes of the model's inputs and outputs to `record`, and stores those of the task and
/// the work buffer. The sums have 32 bits and wrap.
void RecordModelIoSize(ProfileRecord& record, const quilm_mdl_desc* modelDesc);

}  // namespace quilmrun

#endif  // QUILMRUN_MODEL_MODEL_PROCESS_H_
