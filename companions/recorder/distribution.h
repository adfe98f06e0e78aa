// A number of durations in little memory, however many they are.
#ifndef QUILMRUN_COMPANIONS_RECORDER_DISTRIBUTION_H_
#define QUILMRUN_COMPANIONS_RECORDER_DISTRIBUTION_H_

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace quilmrun_record {

/// Counts durations in bins, whose widths grow with the duration and are at most 1/256 of it. The
/// first durations are kept as they are too.
class Distribution {
 public:
  /// How far a percentile may be from the true one where it is not exact, as a share of it.
  static constexpr double kError = 1.0 / 256;
  /// Percentiles of up to so many durations are exact.
  static constexpr size_t kMostExact = 16384;

  void Add(uint64_t ns);

  uint64_t Count() const { return count_; }
  bool IsExact() const { return count_ <= kMostExact; }
  uint64_t MinNs() const { return minNs_; }
  uint64_t MaxNs() const { return maxNs_; }
  uint64_t TotalNs() const { return totalNs_; }

  /// The duration in ns below which `share` of all are, interpolated between the two around it.
  /// REQUIRES: Count() > 0.
  double Percentile(double share) const;

  /// The bins that are not empty, each as the duration in its middle, ns, and its count.
  std::vector<std::pair<double, uint64_t>> Bins() const;

 private:
  double ExactPercentile(double share) const;

  uint64_t count_ = 0;
  uint64_t minNs_ = 0;
  uint64_t maxNs_ = 0;
  uint64_t totalNs_ = 0;
  std::vector<uint64_t> bins_;   // their counts; empty while nothing was added
  std::vector<uint64_t> first_;  // the first kMostExact durations
};

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_DISTRIBUTION_H_
