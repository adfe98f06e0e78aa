// The figures that a run measures, in one record for the whole process.
#ifndef QUILMRUN_PROFILE_PROFILE_RECORD_H_
#define QUILMRUN_PROFILE_PROFILE_RECORD_H_

#include <cstdint>

namespace quilmrun {

/// Written by the step that does the measured work, read by the reports at the end of the run.
/// Sizes are the runtime's, for one batch. A step that was not reached leaves the initial value,
/// and the reports show it all the same.
struct ProfileRecord {
  uint32_t inputSize = 0;        ///< bytes, all model inputs but the last two together
  uint32_t taskBufSize = 0;      ///< bytes
  uint32_t workBufSize = 0;      ///< bytes
  uint32_t outputSize = 0;       ///< bytes, all model outputs together
  uint32_t omSize = 0;           ///< bytes of the model file
  int32_t modelInfoMem = 0;      ///< KB of media memory the model load took; may be negative
  int32_t quilmInitMem = 0;      ///< KB of media memory the runtime's start took; may be negative
  double readModelFileTime = 0;  ///< ms, reading the model file into device memory
  double modelLoadTime = 0;      ///< ms, the runtime's load of the model from memory
  uint32_t loopCount = 21;       ///< executions per inference; 1 unless profiling is on
  double executeTime = 0;        ///< ms, all loopCount executions of the latest inference together
};

/// The only value of the profiling switch that means on.
constexpr uint32_t kProfileOn = 1;

/// The process's only record; never reset.
extern ProfileRecord profileRecord;

}  // namespace quilmrun

#endif  // QUILMRUN_PROFILE_PROFILE_RECORD_H_
