// Model files for the host runtime: whatever is loaded can be described and unloaded again.
#include <cstdio>
#include <cstring>
#include <vector>

#include "runtime/quilm.h"
#include "tests/fuzz/fuzz.h"

using namespace quilmrun_fuzz;  // NOLINT: what the targets share

namespace {

void Describe(uint32_t model) {
  quilm_mdl_desc* desc = quilm_mdl_create_desc();
  Require(quilm_mdl_get_desc(desc, model) == 0);
  for (size_t i = 0; i < quilm_mdl_get_num_inputs(desc); ++i) {
    quilm_mdl_io_dims dims;
    Require(quilm_mdl_get_input_dims(desc, i, &dims) == 0);
    Require(dims.dim_count <= QUILM_MAX_DIM_COUNT);
    Require(std::memchr(dims.name, 0, sizeof(dims.name)) != nullptr);
    Require(quilm_mdl_get_input_default_stride(desc, i) <=
            quilm_mdl_get_input_size_by_index(desc, i));
    Require(quilm_data_type_size(quilm_mdl_get_input_data_type(desc, i)) >= 8);
  }
  Require(quilm_mdl_destroy_desc(desc) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static MemoryFile settings;
  static const quilm_error started = quilm_init(settings.Hold("{}").c_str());
  Require(started == 0);
  // As the tool hands it over: in memory of its very size, so that reading on is noticed.
  const std::vector<uint8_t> file(data, data + size);
  uint32_t model = 0;
  if (quilm_mdl_load_from_mem(file.data(), file.size(), &model) == 0) {
    Describe(model);
    Require(quilm_mdl_unload(model) == 0);
  }
  return 0;
}
