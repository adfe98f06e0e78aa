// What a calls file has: the facts of a run and its calls.
#ifndef QUILMRUN_COMPANIONS_RECORDER_CALLS_H_
#define QUILMRUN_COMPANIONS_RECORDER_CALLS_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "companions/recorder/calls_file.h"

namespace quilmrun_record {

/// A calls file, of which never more than some kilobytes are in memory.
class Calls {
 public:
  /// Null when there is no such file, or it is no calls file; `problem` says why.
  static std::unique_ptr<Calls> Open(const std::string& path, std::string& problem);
  ~Calls();
  Calls(const Calls&) = delete;
  Calls& operator=(const Calls&) = delete;

  const CallsHeader& Header() const { return header_; }
  std::string Library() const;
  std::string Program() const;
  /// All values that were noted before the run under this key.
  std::vector<std::string> Facts(const std::string& key) const;

  /// Hands over all entries in the order in which the calls began. There may be fewer than the
  /// header says, as the file may have been cut or damaged.
  void ForEach(const std::function<void(const CallEntry&)>& take) const;

 private:
  explicit Calls(int file) : file_(file) {}
  bool ReadStart(size_t fileSize);
  size_t ReadBlock(size_t first, std::vector<CallEntry>& block) const;

  int file_;
  CallsHeader header_{};
  CallsFacts facts_{};
  size_t count_ = 0;  // entries that are in the file
};

/// The name of the function called.
const char* NameOf(const CallEntry& call);

inline bool HasReturned(const CallEntry& call) {
  return call.durationNs != kUnfinished;
}

/// The moment at which the call returned, or, where it did not, at which it began; ns.
uint64_t EndOf(const CallEntry& call);

/// What it returned, as text: a number, or a pointer in hexadecimal.
std::string ResultOf(const CallEntry& call);

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_CALLS_H_
