// Loading models and answering what they are like.
#include <algorithm>
#include <cstring>

#include "runtime/host/state.h"

namespace quilm_host {
namespace {

using TensorList = std::vector<Tensor> Model::*;

quilm_error Load(const void* data, size_t size, uint32_t* modelId) {
  if (data == nullptr || size == 0 || modelId == nullptr) {
    Explain("%s: there is no model at %p, size %zu", currentCall, data, size);
    return kBadArgument;
  }
  auto model = std::make_shared<Model>();
  const std::string problem = LoadModel(data, size, state.settings, *model);
  if (!problem.empty()) {
    Explain("the model cannot be loaded: %s", problem.c_str());
    return kBadModel;
  }
  *modelId = ++state.lastModelId;
  state.models.Add(*modelId, std::move(model));
  return kOk;
}

quilm_error FillDescription(quilm_mdl_desc* desc, uint32_t modelId) {
  const auto description = state.descriptions.Find(desc);
  auto model = state.models.Find(modelId);
  if (description == nullptr || model == nullptr) {
    return kUnknownHandle;
  }
  description->model = std::move(model);
  return kOk;
}

// The description's inputs or outputs; null, with an explanation, when it has none yet.
const std::vector<Tensor>* FindTensors(const quilm_mdl_desc* desc, TensorList list) {
  const auto found = state.descriptions.Find(desc);
  if (found == nullptr) {
    return nullptr;
  }
  if (found->model == nullptr) {
    Explain("%s: the description has not been filled", currentCall);
    return nullptr;
  }
  return &((*found->model).*list);
}

const Tensor* FindTensor(const quilm_mdl_desc* desc, TensorList list, size_t index) {
  const std::vector<Tensor>* tensors = FindTensors(desc, list);
  if (tensors == nullptr) {
    return nullptr;
  }
  if (index >= tensors->size()) {
    Explain("%s: index %zu, but there are %zu", currentCall, index, tensors->size());
    return nullptr;
  }
  return &(*tensors)[index];
}

size_t Count(const quilm_mdl_desc* desc, TensorList list, const char* call = __builtin_FUNCTION()) {
  const auto count = [=] {
    const std::vector<Tensor>* tensors = FindTensors(desc, list);
    return tensors == nullptr ? 0 : tensors->size();
  };
  return Perform(count, size_t{0}, call);
}

size_t GetSize(const quilm_mdl_desc* desc, TensorList list, size_t index, size_t Tensor::*field,
               const char* call = __builtin_FUNCTION()) {
  const auto get = [=] {
    const Tensor* tensor = FindTensor(desc, list, index);
    return tensor == nullptr ? 0 : tensor->*field;
  };
  return Perform(get, size_t{0}, call);
}

int32_t GetDataType(const quilm_mdl_desc* desc, TensorList list, size_t index,
                    const char* call = __builtin_FUNCTION()) {
  constexpr int32_t kNone = -1;
  const auto get = [=] {
    const Tensor* tensor = FindTensor(desc, list, index);
    return tensor == nullptr ? kNone : tensor->type->code;
  };
  return Perform(get, kNone, call);
}

// All tensors are in the plain layout, outermost dimension first.
int32_t GetFormat(const quilm_mdl_desc* desc, TensorList list, size_t index,
                  const char* call = __builtin_FUNCTION()) {
  const auto get = [=] {
    FindTensor(desc, list, index);
    return 0;
  };
  return Perform(get, 0, call);
}

quilm_error GetDims(const quilm_mdl_desc* desc, TensorList list, size_t index,
                    quilm_mdl_io_dims* dims, const char* call = __builtin_FUNCTION()) {
  const auto get = [=] {
    const Tensor* tensor = FindTensor(desc, list, index);
    if (tensor == nullptr || dims == nullptr) {
      return kBadArgument;
    }
    *dims = {};
    std::memcpy(dims->name, tensor->name.c_str(), tensor->name.size());
    dims->dims[0] = 1;  // what a scalar is described as
    dims->dim_count = std::max<size_t>(tensor->dims.size(), 1);
    std::copy(tensor->dims.begin(), tensor->dims.end(), dims->dims);
    return kOk;
  };
  return Perform(get, kNotInitialized, call);
}

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

quilm_error quilm_mdl_load_from_mem(const void* model, size_t size, uint32_t* model_id) {
  return Perform([=] { return Load(model, size, model_id); });
}

quilm_error quilm_mdl_unload(uint32_t model_id) {
  return Perform([=] { return state.models.Remove(model_id); });
}

quilm_mdl_desc* quilm_mdl_create_desc(void) {
  return Perform([] { return state.descriptions.Create(); });
}

quilm_error quilm_mdl_destroy_desc(quilm_mdl_desc* desc) {
  return Perform([=] { return state.descriptions.Remove(desc); });
}

quilm_error quilm_mdl_get_desc(quilm_mdl_desc* desc, uint32_t model_id) {
  return Perform([=] { return FillDescription(desc, model_id); });
}

size_t quilm_mdl_get_num_inputs(const quilm_mdl_desc* desc) {
  return Count(desc, &Model::inputs);
}

size_t quilm_mdl_get_num_outputs(const quilm_mdl_desc* desc) {
  return Count(desc, &Model::outputs);
}

quilm_error quilm_mdl_get_input_dims(const quilm_mdl_desc* desc, size_t index,
                                     quilm_mdl_io_dims* dims) {
  return GetDims(desc, &Model::inputs, index, dims);
}

quilm_error quilm_mdl_get_output_dims(const quilm_mdl_desc* desc, size_t index,
                                      quilm_mdl_io_dims* dims) {
  return GetDims(desc, &Model::outputs, index, dims);
}

int32_t quilm_mdl_get_input_data_type(const quilm_mdl_desc* desc, size_t index) {
  return GetDataType(desc, &Model::inputs, index);
}

int32_t quilm_mdl_get_output_data_type(const quilm_mdl_desc* desc, size_t index) {
  return GetDataType(desc, &Model::outputs, index);
}

size_t quilm_mdl_get_input_size_by_index(const quilm_mdl_desc* desc, size_t index) {
  return GetSize(desc, &Model::inputs, index, &Tensor::size);
}

size_t quilm_mdl_get_output_size_by_index(const quilm_mdl_desc* desc, size_t index) {
  return GetSize(desc, &Model::outputs, index, &Tensor::size);
}

size_t quilm_mdl_get_input_default_stride(const quilm_mdl_desc* desc, size_t index) {
  return GetSize(desc, &Model::inputs, index, &Tensor::stride);
}

size_t quilm_mdl_get_output_default_stride(const quilm_mdl_desc* desc, size_t index) {
  return GetSize(desc, &Model::outputs, index, &Tensor::stride);
}

int32_t quilm_mdl_get_input_format(const quilm_mdl_desc* desc, size_t index) {
  return GetFormat(desc, &Model::inputs, index);
}

int32_t quilm_mdl_get_output_format(const quilm_mdl_desc* desc, size_t index) {
  return GetFormat(desc, &Model::outputs, index);
}

const char* quilm_mdl_get_output_name_by_index(const quilm_mdl_desc* desc, size_t index) {
  return Perform([=]() -> const char* {
    const Tensor* tensor = FindTensor(desc, &Model::outputs, index);
    return tensor == nullptr ? nullptr : tensor->name.c_str();
  });
}

size_t quilm_data_type_size(int32_t data_type) {
  return Perform([=] { return DataTypeBits(data_type); });
}
