// The start of a libquilm.so that stands between a caller and another libquilm.so: it has every
// function of the interface and decides for each call what happens before, after or instead of the
// real one. The recorder, the tests' runtime and the benchmarks' runtime are made of it.
//
// A user defines one Handle template, which serves every call, and overloads for the calls that are
// special. An overload takes the very types of the interface, since the template would otherwise be
// the better match:
//
//   template <Id kId, typename... Arguments>
//   ResultOf<kId> Handle(Call<kId> call, Arguments... arguments) {
//     return Pass(call, arguments...);
//   }
//   quilm_error Handle(Call<Id::quilm_rt_free> call, void* pointer);
//
//   QUILM_CALLS(QUILM_INTERPOSE)  // after them, in the global namespace: the interface itself
//
// and calls OpenRealLibrary() before the first call. Nothing here needs the C++ library, as the
// recorder has to get along without.
#ifndef QUILMRUN_RUNTIME_INTERPOSER_INTERPOSER_H_
#define QUILMRUN_RUNTIME_INTERPOSER_INTERPOSER_H_

#include <cstddef>

#include "runtime/interposer/calls.h"
#include "runtime/quilm.h"

// Hidden, so that two interposers in one process share no symbols: one may be recorded by another.
#pragma GCC visibility push(hidden)

namespace quilm_interposer {

#define QUILM_ID(arity, function) function,
enum class Id : unsigned char { QUILM_CALLS(QUILM_ID) kCount };
#undef QUILM_ID

constexpr size_t kCallCount = static_cast<size_t>(Id::kCount);

/// What is known of each call when compiling: `Function`, its type, and `kName`.
template <Id kId>
struct Call;

#define QUILM_CALL(arity, function)                 \
  template <>                                       \
  struct Call<Id::function> {                       \
    using Function = decltype(::function);          \
    static constexpr const char* kName = #function; \
  };
QUILM_CALLS(QUILM_CALL)
#undef QUILM_CALL

/// What a function of this type returns, and takes as its parameter number kIndex.
template <typename Function>
struct Signature;

template <size_t kIndex, typename... Types>
struct TypeAt;

template <size_t kIndex, typename First, typename... Others>
struct TypeAt<kIndex, First, Others...> : TypeAt<kIndex - 1, Others...> {};

template <typename First, typename... Others>
struct TypeAt<0, First, Others...> {
  using Type = First;
};

template <typename R, typename... Arguments>
struct Signature<R(Arguments...)> {
  using Result = R;
  template <size_t kIndex>
  using Argument = typename TypeAt<kIndex, Arguments...>::Type;
};

template <Id kId>
using ResultOf = typename Signature<typename Call<kId>::Function>::Result;

template <Id kId, size_t kIndex>
using ArgumentOf = typename Signature<typename Call<kId>::Function>::template Argument<kIndex>;

/// The functions of the real library, by Id; null before OpenRealLibrary().
extern void* realFunctions[kCallCount];

/// The names of the functions, by Id.
extern const char* const kNames[kCallCount];

/// What OpenRealLibrary() says of the library that it is called from.
extern const char* const kPassesOn;

/// Loads the library at `path`, which has to contain a slash: the loader would take a plain name
/// for the library that is calling, which has it too. Its symbols stay its own. Returns null, or
/// what is wrong: not a library for this machine, a function missing, or `kPassesOn`.
const char* OpenRealLibrary(const char* path);

/// Calls the real library.
template <Id kId, typename... Arguments>
ResultOf<kId> Pass(Call<kId>, Arguments... arguments) {
  using Function = typename Call<kId>::Function;
  return reinterpret_cast<Function*>(realFunctions[static_cast<size_t>(kId)])(arguments...);
}

}  // namespace quilm_interposer

#pragma GCC visibility pop

// Defines one function of the interface, which calls the Handle() that is visible where this
// stands.
#define QUILM_INTERPOSE(arity, function)                                   \
  quilm_interposer::ResultOf<quilm_interposer::Id::function> function(     \
      QUILM_PARAMETERS_##arity(quilm_interposer::Id::function)) {          \
    return Handle(quilm_interposer::Call<quilm_interposer::Id::function>() \
                      QUILM_ARGUMENTS_##arity);                            \
  }
#define QUILM_PARAMETERS_0(id) void
#define QUILM_PARAMETERS_1(id) quilm_interposer::ArgumentOf<id, 0> a
#define QUILM_PARAMETERS_2(id) QUILM_PARAMETERS_1(id), quilm_interposer::ArgumentOf<id, 1> b
#define QUILM_PARAMETERS_3(id) QUILM_PARAMETERS_2(id), quilm_interposer::ArgumentOf<id, 2> c
#define QUILM_PARAMETERS_4(id) QUILM_PARAMETERS_3(id), quilm_interposer::ArgumentOf<id, 3> d
#define QUILM_ARGUMENTS_0
#define QUILM_ARGUMENTS_1 , a
#define QUILM_ARGUMENTS_2 , a, b
#define QUILM_ARGUMENTS_3 , a, b, c
#define QUILM_ARGUMENTS_4 , a, b, c, d

#endif  // QUILMRUN_RUNTIME_INTERPOSER_INTERPOSER_H_
