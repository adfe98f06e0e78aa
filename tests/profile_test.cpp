#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "profile/media_memory.h"
#include "profile/profile_record.h"
#include "profile/reports.h"

namespace quilmrun {
namespace {

TEST(ParseMediaMemUsed, TakesTheFirstFigure) {
  const std::pair<const char*, int32_t> rows[] = {
      {"a=1KB\nused=10KB\nused=20KB\n", 10},
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

ProfileRecord ExampleRecord() {
  ProfileRecord record;
  record.inputSize = 150528;
  record.taskBufSize = 512;
  record.outputSize = 5000;
  record.omSize = 2048;
  record.modelInfoMem = -4;
  record.quilmInitMem = -8;
  record.readModelFileTime = 3.5;
  record.modelLoadTime = 12.5;
  record.executeTime = 88.2;
  return record;
}

TEST(WriteMemoryDataCsv, ReplacesTheReport) {
  const std::string path = testing::TempDir() + "memory_data.csv";
  std::ofstream(path) << std::string(2000, 'x');
  WriteMemoryDataCsv(ExampleRecord(), path);
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  EXPECT_EQ(text.str(),
            "Model Load Time(ms),Read Model File Time(ms),Model Execute Time(ms),Input Size(KB),"
            "Task Buffer Size(KB),Output Size(KB),Mapper Temp Buffer(KB),Online Model Size(KB),"
            "Quilm Init Memory Size(KB)\n"
            "12.50,3.50,4.20,147.000,0.500,4.883,0.000,2.000,4294967288\n");
}

}  // namespace
}  // namespace quilmrun
