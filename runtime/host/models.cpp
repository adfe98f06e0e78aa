// Loading models and answering what they are like.
#include <algorithm>
#include <cstring>

#include "runtime/host/state.h"

namespace quilm_host {
namespace {

using TensorList = std::vector<Tensor> OnnxModel::*;

quilm_error Load(const void* data, size_t size, uint32_t* modelId) {
  if (data == nullptr || size == 0 || modelId == nullptr) {
    Explain("quilm_mdl_load_from_mem: there is no model at %p, size %zu", data, size);
    return kBadArgument;
  }
  auto model = std::make_shared<Model>();
  std::string problem = ReadOnnxModel(data, size, state.settings, model->onnx);
  if (problem.empty()) {
    model->engine = CreateEngine(model->onnx, problem);
  }
  if (!problem.empty()) {
    Explain("the model cannot be loaded: %s", problem.c_str());
    return kBadModel;
  }
  *modelId = ++state.lastModelId;
  state.models.Add(*modelId, std::move(model));
  return kOk;
}

// The description's inputs or outputs; null, with an explanation, when it has none yet.
const std::vector<Tensor>* FindTensors(const quilm_mdl_desc* desc, TensorList list) {
  const auto* found = state.descriptions.Find(desc);
  if (found == nullptr) {
    return nullptr;
  }
  if ((*found)->model == nullptr) {
    Explain("%s: the description has not been filled", currentCall);
    return nullptr;
  }
  return &((*found)->model->onnx.*list);
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

size_t Count(const char* call, const quilm_mdl_desc* desc, TensorList list) {
  return Perform<size_t>(call, 0, [=] {
    const std::vector<Tensor>* tensors = FindTensors(desc, list);
    return tensors == nullptr ? 0 : tensors->size();
  });
}

// One field of one input or output; `failure` when there is no such tensor.
template <typename Field>
Field Get(const char* call, const quilm_mdl_desc* desc, TensorList list, size_t index,
          Field Tensor::*field, Field failure) {
  return Perform<Field>(call, failure, [=] {
    const Tensor* tensor = FindTensor(desc, list, index);
    return tensor == nullptr ? failure : tensor->*field;
  });
}

quilm_error GetDims(const char* call, const quilm_mdl_desc* desc, TensorList list, size_t index,
                    quilm_mdl_io_dims* dims) {
  return Perform<quilm_error>(call, kNotInitialized, [=] {
    const Tensor* tensor = FindTensor(desc, list, index);
    if (tensor == nullptr || dims == nullptr) {
      return kBadArgument;
    }
    *dims = {};
    std::memcpy(dims->name, tensor->name.c_str(), tensor->name.size());
    dims->dim_count = tensor->dims.size();
    std::copy(tensor->dims.begin(), tensor->dims.end(), dims->dims);
    return kOk;
  });
}

// All tensors are in the plain layout, outermost dimension first.
int32_t GetFormat(const char* call, const quilm_mdl_desc* desc, TensorList list, size_t index) {
  return Perform<int32_t>(call, 0, [=] {
    FindTensor(desc, list, index);
    return 0;
  });
}

constexpr int32_t kNoDataType = -1;

}  // namespace
}  // namespace quilm_host

using namespace quilm_host;  // NOLINT: what follows is this namespace's interface to C

quilm_error quilm_mdl_load_from_mem(const void* model, size_t size, uint32_t* model_id) {
  return Perform<quilm_error>(__func__, kNotInitialized,
                              [=] { return Load(model, size, model_id); });
}

quilm_error quilm_mdl_unload(uint32_t model_id) {
  return Perform<quilm_error>(__func__, kNotInitialized,
                              [=] { return state.models.Remove(model_id); });
}

quilm_mdl_desc* quilm_mdl_create_desc(void) {
  return Perform<quilm_mdl_desc*>(__func__, nullptr, [] { return state.descriptions.Create(); });
}

quilm_error quilm_mdl_destroy_desc(quilm_mdl_desc* desc) {
  return Perform<quilm_error>(__func__, kNotInitialized,
                              [=] { return state.descriptions.Remove(desc); });
}

quilm_error quilm_mdl_get_desc(quilm_mdl_desc* desc, uint32_t model_id) {
  return Perform<quilm_error>(__func__, kNotInitialized, [=] {
    const auto* description = state.descriptions.Find(desc);
    const auto* model = state.models.Find(model_id);
    if (description == nullptr || model == nullptr) {
      return kUnknownHandle;
    }
    (*description)->model = *model;
    return kOk;
  });
}

size_t quilm_mdl_get_num_inputs(const quilm_mdl_desc* desc) {
  return Count(__func__, desc, &OnnxModel::inputs);
}

size_t quilm_mdl_get_num_outputs(const quilm_mdl_desc* desc) {
  return Count(__func__, desc, &OnnxModel::outputs);
}

quilm_error quilm_mdl_get_input_dims(const quilm_mdl_desc* desc, size_t index,
                                     quilm_mdl_io_dims* dims) {
  return GetDims(__func__, desc, &OnnxModel::inputs, index, dims);
}

quilm_error quilm_mdl_get_output_dims(const quilm_mdl_desc* desc, size_t index,
                                      quilm_mdl_io_dims* dims) {
  return GetDims(__func__, desc, &OnnxModel::outputs, index, dims);
}

int32_t quilm_mdl_get_input_data_type(const quilm_mdl_desc* desc, size_t index) {
  return Get(__func__, desc, &OnnxModel::inputs, index, &Tensor::dataType, kNoDataType);
}

int32_t quilm_mdl_get_output_data_type(const quilm_mdl_desc* desc, size_t index) {
  return Get(__func__, desc, &OnnxModel::outputs, index, &Tensor::dataType, kNoDataType);
}

size_t quilm_mdl_get_input_size_by_index(const quilm_mdl_desc* desc, size_t index) {
  return Get(__func__, desc, &OnnxModel::inputs, index, &Tensor::size, size_t{0});
}

size_t quilm_mdl_get_output_size_by_index(const quilm_mdl_desc* desc, size_t index) {
  return Get(__func__, desc, &OnnxModel::outputs, index, &Tensor::size, size_t{0});
}

size_t quilm_mdl_get_input_default_stride(const quilm_mdl_desc* desc, size_t index) {
  return Get(__func__, desc, &OnnxModel::inputs, index, &Tensor::stride, size_t{0});
}

size_t quilm_mdl_get_output_default_stride(const quilm_mdl_desc* desc, size_t index) {
  return Get(__func__, desc, &OnnxModel::outputs, index, &Tensor::stride, size_t{0});
}

int32_t quilm_mdl_get_input_format(const quilm_mdl_desc* desc, size_t index) {
  return GetFormat(__func__, desc, &OnnxModel::inputs, index);
}

int32_t quilm_mdl_get_output_format(const quilm_mdl_desc* desc, size_t index) {
  return GetFormat(__func__, desc, &OnnxModel::outputs, index);
}

const char* quilm_mdl_get_output_name_by_index(const quilm_mdl_desc* desc, size_t index) {
  return Perform<const char*>(__func__, nullptr, [=]() -> const char* {
    const Tensor* tensor = FindTensor(desc, &OnnxModel::outputs, index);
    return tensor == nullptr ? nullptr : tensor->name.c_str();
  });
}

size_t quilm_data_type_size(int32_t data_type) {
  return Perform<size_t>(__func__, 0, [=] { return DataTypeBits(data_type); });
}
