#include "companions/recorder/distribution.h"

#include <algorithm>
#include <cmath>

namespace quilmrun_record {
namespace {

// Durations below 512 ns have bins of 1 ns. Beyond, the stretch from each power of two to the next
// one has 256 bins. The last bin also takes durations beyond 78 hours.
constexpr unsigned kBits = 8;
constexpr uint64_t kPerOctave = uint64_t{1} << kBits;
constexpr unsigned kMostBits = 48;
constexpr size_t kBins = (kMostBits - kBits + 1) * kPerOctave;

size_t BinOf(uint64_t ns) {
  unsigned shift = 0;
  while ((ns >> shift) >= 2 * kPerOctave) {
    ++shift;
  }
  return std::min<size_t>(shift * kPerOctave + (ns >> shift), kBins - 1);
}

struct Bounds {
  double low;   // the first duration of a bin, ns
  double high;  // the last one
};

Bounds BoundsOf(size_t bin) {
  const unsigned shift = bin < kPerOctave ? 0 : static_cast<unsigned>(bin / kPerOctave) - 1;
  const auto width = static_cast<double>(uint64_t{1} << shift);
  const double low = static_cast<double>(bin - shift * kPerOctave) * width;
  return {low, low + width - 1};
}

}  // namespace

void Distribution::Add(uint64_t ns) {
  bins_.resize(kBins);
  ++bins_[BinOf(ns)];
  if (count_ < kMostExact) {
    first_.push_back(ns);
  }
  minNs_ = count_ == 0 ? ns : std::min(minNs_, ns);
  maxNs_ = std::max(maxNs_, ns);
  totalNs_ += ns;
  ++count_;
}

double Distribution::Percentile(double share) const {
  if (IsExact()) {
    return ExactPercentile(share);
  }
  const double rank = share * static_cast<double>(count_ - 1);
  double before = 0;
  size_t bin = 0;
  while (bin + 1 < kBins && before + static_cast<double>(bins_[bin]) <= rank) {
    before += static_cast<double>(bins_[bin++]);
  }
  const Bounds bounds = BoundsOf(bin);
  const double part = (rank - before) / static_cast<double>(std::max<uint64_t>(bins_[bin], 1));
  return std::clamp(bounds.low + part * (bounds.high - bounds.low), static_cast<double>(minNs_),
                    static_cast<double>(maxNs_));
}

double Distribution::ExactPercentile(double share) const {
  std::vector<uint64_t> sorted = first_;
  std::sort(sorted.begin(), sorted.end());
  const double position = share * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<size_t>(position);
  const auto low = static_cast<double>(sorted[below]);
  const auto high = static_cast<double>(sorted[std::min(below + 1, sorted.size() - 1)]);
  return low + (position - std::floor(position)) * (high - low);
}

std::vector<std::pair<double, uint64_t>> Distribution::Bins() const {
  std::vector<std::pair<double, uint64_t>> filled;
  for (size_t bin = 0; bin < bins_.size(); ++bin) {
    if (bins_[bin] > 0) {
      const Bounds bounds = BoundsOf(bin);
      filled.emplace_back((bounds.low + bounds.high) / 2, bins_[bin]);
    }
  }
  return filled;
}

}  // namespace quilmrun_record
