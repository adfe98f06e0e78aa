#include "profile/media_memory.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace quilmrun {
namespace {

TEST(ParseMediaMemUsed, TakesTheFirstFigure) {
  const std::pair<const char*, int32_t> rows[] = {
      {"a=1KB\nused=10KB\nused=20KB\n", 10},
      {"used=1KB used=2KB\n", 1},
      {"used= 512 KB", 512},
      {"used=77", 77},
      {"total=9KB, used=8KB, free=1KB\n", 8},
      {"free=1KB used=-3KB", -3},
      {"used=KB5\nused=6KB\n", 0},
      {"used=x\n", 0},
      {"used=99999999999KB\n", 0},
      {"nothing\n", 0},
      {"", 0},
  };
  for (const auto& [text, used] : rows) {
    std::istringstream mediaMem(text);
    EXPECT_EQ(ParseMediaMemUsed(mediaMem), used) << text;
  }
}

}  // namespace
}  // namespace quilmrun
