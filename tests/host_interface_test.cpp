// The host runtime called as no tool should: every misuse is an explained error, never a crash.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/quilm.h"
#include "tests/scratch_directory.h"

namespace {

constexpr int32_t kPolicy = 2;

class HostInterface : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStderr();
    const std::string settings = directory_.Path() + "/settings.json";
    std::ofstream(settings) << "{}";
    ASSERT_EQ(quilm_init(settings.c_str()), 0);
    ASSERT_EQ(quilm_rt_set_device(0), 0);
  }

  void TearDown() override { Finish(); }

  // Ends the runtime; returns what it said since the start.
  std::string Finish() {
    if (finished_) {
      return "";
    }
    finished_ = true;
    quilm_finalize();
    return testing::internal::GetCapturedStderr();
  }

  uint32_t LoadModel(const char* path) {
    std::ifstream file(path, std::ios::binary);
    const std::string model((std::istreambuf_iterator<char>(file)), {});
    uint32_t id = 0;
    EXPECT_EQ(quilm_mdl_load_from_mem(model.data(), model.size(), &id), 0);
    return id;
  }

  // A dataset with one buffer per (size, stride) pair, each the whole of a memory block.
  quilm_mdl_dataset* MakeDataset(const std::vector<std::pair<size_t, size_t>>& entries) {
    quilm_mdl_dataset* dataset = quilm_mdl_create_dataset();
    for (const auto& [size, stride] : entries) {
      void* memory = nullptr;
      EXPECT_EQ(quilm_rt_malloc(&memory, size, kPolicy), 0);
      quilm_mdl_add_dataset_buffer(dataset, quilm_create_data_buffer(memory, size, stride));
    }
    return dataset;
  }

 private:
  const quilmrun::ScratchDirectory directory_;
  bool finished_ = false;
};

TEST_F(HostInterface, RefusesDatasetsThatDoNotFitTheModel) {
  const uint32_t id = LoadModel(QUILMRUN_DIGITS_MODEL);
  quilm_mdl_dataset* output = MakeDataset({{128, 64}});
  struct Row {
    std::vector<std::pair<size_t, size_t>> input;
    uint64_t batch;
    const char* explanation;  // empty: it fits
  };
  const Row rows[] = {
      {{{256, 32}, {1024, 1024}, {4096, 4096}}, 1, ""},
      {{{512, 32}, {2048, 1024}, {8192, 4096}}, 2, ""},
      {{{255, 32}, {1024, 1024}, {4096, 4096}},
       1,
       "input 0 \"image\": its buffer has 255 bytes, 1 x 256 are needed"},
      {{{512, 64}, {1024, 1024}, {4096, 4096}},
       1,
       "input 0 \"image\": its buffer has stride 64, the model 32"},
      {{{256, 32}, {1024, 1024}}, 1, "the input dataset has 2 entries, the model 3"},
      {{{512, 32}, {1024, 1024}, {8192, 4096}},
       2,
       "input 1 \"task_buffer\": its buffer has 1024 bytes, 2 x 1024 are needed"},
      {{{768, 32}, {3072, 1024}, {12288, 4096}},
       3,
       "output 0 \"probabilities\": its buffer has 128 bytes, 3 x 64 are needed"},
  };
  std::string expected;
  for (const Row& row : rows) {
    quilm_mdl_dataset* input = MakeDataset(row.input);
    EXPECT_EQ(quilm_mdl_set_dynamic_batch_size(id, input, 0, row.batch), 0);
    const bool fits = *row.explanation == '\0';
    EXPECT_EQ(quilm_mdl_execute(id, input, output) == 0, fits) << row.explanation;
    expected += fits ? "" : "host runtime: " + std::string(row.explanation) + "\n";
  }
  quilm_mdl_dataset* input = MakeDataset({{256, 32}, {1024, 1024}, {4096, 4096}});
  quilm_rt_free(quilm_get_data_buffer_addr(quilm_mdl_get_dataset_buffer(input, 0)));
  EXPECT_EQ(quilm_mdl_execute(id, input, output), -1);
  expected +=
      "host runtime: input 0 \"image\": quilm_mdl_execute: block of device memory does not exist "
      "(any more)\n";
  EXPECT_EQ(Finish().substr(0, expected.size()), expected);
}

TEST_F(HostInterface, RefusesWrongArguments) {
  const uint32_t id = LoadModel(QUILMRUN_DIGITS_MODEL);
  quilm_mdl_desc* desc = quilm_mdl_create_desc();
  quilm_mdl_dataset* input = quilm_mdl_create_dataset();
  quilm_mdl_io_dims dims = {};
  void* memory = nullptr;
  EXPECT_EQ(quilm_mdl_get_num_inputs(desc), 0U);
  EXPECT_EQ(quilm_mdl_get_desc(desc, id), 0);
  EXPECT_EQ(quilm_mdl_get_num_inputs(desc), 3U);
  EXPECT_EQ(quilm_mdl_get_input_dims(desc, 2, &dims), 0);
  EXPECT_EQ(quilm_mdl_get_input_dims(desc, 3, &dims), -1);
  EXPECT_EQ(quilm_mdl_get_input_dims(desc, 0, nullptr), -1);
  EXPECT_EQ(quilm_mdl_set_dynamic_batch_size(id, input, 0, 0), -1);
  EXPECT_EQ(quilm_mdl_set_dynamic_batch_size(id, input, 1, 1), -1);
  EXPECT_EQ(quilm_mdl_set_total_t(id, input, 1), -1);
  EXPECT_EQ(quilm_rt_reset_device(1), -1);
  EXPECT_EQ(quilm_rt_malloc(&memory, 8, kPolicy), 0);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % 64, 0U);
  EXPECT_NE(quilm_create_data_buffer(memory, 8, 8), nullptr);
  EXPECT_EQ(quilm_create_data_buffer(memory, 9, 8), nullptr);
  EXPECT_EQ(quilm_create_data_buffer(memory, 0, 8), nullptr);
  EXPECT_EQ(quilm_rt_free(memory), 0);
  EXPECT_EQ(quilm_rt_free(memory), -1);
  EXPECT_EQ(quilm_rt_malloc(&memory, SIZE_MAX / 2, kPolicy), -1);
  EXPECT_EQ(quilm_data_type_size(1), 16U);
  EXPECT_EQ(quilm_data_type_size(5), 0U);
  EXPECT_EQ(quilm_mdl_unload(id), 0);
  EXPECT_EQ(quilm_mdl_execute(id, input, input), -1);
  const std::string expected =
      "quilm_mdl_get_num_inputs: the description has not been filled\n"
      "quilm_mdl_get_input_dims: index 3, but there are 3\n"
      "quilm_mdl_get_input_dims: nowhere to put it\n"
      "quilm_mdl_set_dynamic_batch_size: batch size 0 at index 0: it is 1 or more, at index 0\n"
      "quilm_mdl_set_dynamic_batch_size: batch size 1 at index 1: it is 1 or more, at index 0\n"
      "quilm_mdl_set_total_t: total_t 1, the model takes up to 0 frames\n"
      "quilm_rt_reset_device: there is no device 1\n"
      "quilm_create_data_buffer: 9 bytes asked for, the block of device memory has 8\n"
      "quilm_create_data_buffer: 0 bytes asked for, the block of device memory has 8\n"
      "quilm_rt_free: block of device memory does not exist (any more)\n"
      "quilm_rt_malloc: no memory for 9223372036854775807 bytes\n"
      "quilm_mdl_execute: model does not exist (any more)\n";
  EXPECT_EQ(std::regex_replace(Finish(), std::regex("host runtime: "), "").find(expected), 0U);
}

TEST_F(HostInterface, ComputesOnAllCores) {
  const auto countThreads = [] {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::distance(begin(threads), end(threads));
  };
  // Threads that have been joined are still listed for a moment.
  for (int tries = 0; countThreads() > 1 && tries < 1000; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const auto before = countThreads();
  LoadModel(QUILMRUN_DIGITS_MODEL);
  EXPECT_EQ(countThreads() - before, std::max(std::thread::hardware_concurrency(), 1U) - 1);
}

TEST_F(HostInterface, TellsWhatIsLeftAtTheEnd) {
  LoadModel(QUILMRUN_DIGITS_MODEL);
  MakeDataset({{64, 64}, {64, 64}});
  quilm_rt_stream stream = nullptr;
  EXPECT_EQ(quilm_rt_create_stream(&stream), 0);
  EXPECT_EQ(Finish(),
            "host runtime: still there at quilm_finalize: 1 x stream\n"
            "host runtime: still there at quilm_finalize: 1 x dataset\n"
            "host runtime: still there at quilm_finalize: 2 x data buffer\n"
            "host runtime: still there at quilm_finalize: 1 x model\n"
            "host runtime: still there at quilm_finalize: 2 x block of device memory\n");
}

TEST_F(HostInterface, RefusesCallsOutOfTurn) {
  EXPECT_NE(quilm_init("again"), 0);
  EXPECT_NE(quilm_rt_set_device(1), 0);
  quilm_rt_stream stream = nullptr;
  EXPECT_NE(quilm_rt_create_stream(&stream), 0) << "no device is open";
  EXPECT_EQ(stream, nullptr);
  void* memory = nullptr;
  EXPECT_NE(quilm_rt_malloc(&memory, 0, kPolicy), 0);
  Finish();
  testing::internal::CaptureStderr();
  EXPECT_NE(quilm_rt_malloc(&memory, 8, kPolicy), 0);
  EXPECT_NE(quilm_finalize(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "host runtime: quilm_rt_malloc before quilm_init\n"
            "host runtime: quilm_finalize before quilm_init\n");
}

}  // namespace
