// The entry point. It puts the parts of a run together and does nothing else.
#include <utility>

#include "app/attempt.h"
#include "app/options.h"
#include "app/sample_process.h"
#include "app/stop_signals.h"
#include "base/log.h"
#include "base/status.h"

namespace {

int Run(int argc, char** argv) {
  quilmrun::RunOptions options;
  quilmrun::ResolvedPaths paths;
  quilmrun::ParseOptions(options, argc, argv);
  if (quilmrun::CheckOptions(options, paths) != quilmrun::kSuccess) {
    return quilmrun::kFailure;
  }
  return quilmrun::RunSample(options, std::move(paths));
}

}  // namespace

int main(int argc, char** argv) {
  quilmrun::IgnoreWriteSignals();
  quilmrun::PrepareStandardStreams();
  return quilmrun::Attempt([&] { return Run(argc, argv); });
}
