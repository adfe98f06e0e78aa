// What can be told of a call by its function alone.
#ifndef QUILMRUN_COMPANIONS_RECORDER_CALL_KINDS_H_
#define QUILMRUN_COMPANIONS_RECORDER_CALL_KINDS_H_

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "companions/recorder/calls_file.h"

namespace quilmrun_record {

enum class ResultKind { kStatus, kNumber, kPointer };

struct CallKind {
  ResultKind result;
  bool isSigned;  // of a status or number
  bool onlyAsks;  // most calls of an inference are such, and all of them are short
  bool makesNew;  // a null pointer says that it failed
};

constexpr bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

template <typename Result>
constexpr CallKind KindOf(std::string_view function) {
  const bool asks = Contains(function, "quilm_mdl_get_") || Contains(function, "quilm_get_") ||
                    Contains(function, "quilm_ext_get_") || Contains(function, "_type_size");
  // Types and formats are integers like status codes, but they say nothing about success.
  const bool isNumber = !std::is_same_v<Result, quilm_error> ||
                        Contains(function, "put_data_type") || Contains(function, "put_format");
  return {std::is_pointer_v<Result> ? ResultKind::kPointer
          : isNumber                ? ResultKind::kNumber
                                    : ResultKind::kStatus,
          std::is_signed_v<Result>, asks, Contains(function, "_create_")};
}

#define QUILM_CALL_KIND(arity, function) \
  KindOf<quilm_interposer::ResultOf<quilm_interposer::Id::function>>(#function),
inline constexpr CallKind kCallKinds[] = {QUILM_CALLS(QUILM_CALL_KIND)};
#undef QUILM_CALL_KIND

/// True when `result` says that a call of this kind failed.
constexpr bool Failed(const CallKind& kind, int64_t result) {
  return kind.result == ResultKind::kStatus
             ? result != 0
             : kind.result == ResultKind::kPointer && kind.makesNew && result == 0;
}

/// Counts a call that has returned.
inline void Add(const CallEntry& call, FunctionTotals& totals) {
  totals.minNs = totals.count == 0 ? call.durationNs : std::min(totals.minNs, call.durationNs);
  totals.maxNs = std::max(totals.maxNs, call.durationNs);
  totals.totalNs += call.durationNs;
  totals.failed += Failed(kCallKinds[call.call - 1], call.result) ? 1U : 0U;
  ++totals.count;
}

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_CALL_KINDS_H_
