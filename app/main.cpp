#include <utility>

#include "app/log.h"
#include "app/options.h"
#include "app/sample_process.h"
#include "app/status.h"

int main(int argc, char** argv) {
  quilmrun::SetLineBufferedOutput();
  quilmrun::RunOptions options;
  quilmrun::ResolvedPaths paths;
  quilmrun::ParseOptions(options, argc, argv);
  if (quilmrun::CheckOptions(options, paths) != quilmrun::kSuccess) {
    return quilmrun::kFailure;
  }
  return quilmrun::RunSample(options, std::move(paths));
}
