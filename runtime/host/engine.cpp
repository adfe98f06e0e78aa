#include "runtime/host/engine.h"

#include <algorithm>
#include <cstdint>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/dnn.hpp>

#include "runtime/host/element_checks.h"

namespace quilm_host {
namespace {

// Indexed by data type code.
constexpr int kMatTypes[] = {CV_32F, CV_16F, CV_8S, CV_32S, CV_8U, -1, CV_16S, CV_16U};

// The rows of a tensor in device memory, without their padding.
cv::Mat RowsOf(const TensorData& data) {
  const Tensor& tensor = *data.tensor;
  return cv::Mat(static_cast<int>(RowCount(tensor)), static_cast<int>(RowElements(tensor)),
                 kMatTypes[tensor.dataType], data.data, tensor.stride);
}

cv::Mat MakeBlob(const Tensor& tensor) {
  const std::vector<int> dims(tensor.dims.begin(), tensor.dims.end());
  return cv::Mat(static_cast<int>(dims.size()), dims.data(), CV_32F);
}

// A header over the blob's data with one row per tensor row.
cv::Mat AsRows(const cv::Mat& blob, const Tensor& tensor) {
  return cv::Mat(static_cast<int>(RowCount(tensor)), static_cast<int>(RowElements(tensor)), CV_32F,
                 blob.data);
}

bool IsFloatingPoint(const Tensor& tensor) {
  return tensor.dataType == kFloat || tensor.dataType == kHalf;
}

class DnnEngine : public Engine {
 public:
  explicit DnnEngine(const OnnxModel& model)
      : net_(cv::dnn::readNetFromONNX(reinterpret_cast<const char*>(model.encoded.data()),
                                      model.encoded.size())) {
    net_.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net_.enableFusion(false);  // merged layers are wrong in ways that depend on the whole graph
    for (const Tensor& output : model.outputs) {
      outputNames_.push_back(output.name);
    }
  }

  std::string Run(const std::vector<TensorData>& inputs,
                  const std::vector<TensorData>& outputs) override {
    try {
      return Compute(inputs, outputs);
    } catch (const std::exception& problem) {
      return problem.what();
    }
  }

 private:
  std::string Compute(const std::vector<TensorData>& inputs,
                      const std::vector<TensorData>& outputs) {
    for (const TensorData& input : inputs) {
      std::string problem = CheckElements(input);
      if (!problem.empty()) {
        return problem;
      }
      const cv::Mat blob = MakeBlob(*input.tensor);
      cv::Mat rows = AsRows(blob, *input.tensor);
      RowsOf(input).convertTo(rows, CV_32F);
      auto* values = rows.ptr<float>();
      std::fill(values + std::min(input.validElements, rows.total()), values + rows.total(), 0.0F);
      net_.setInput(blob, input.tensor->name);
    }
    std::vector<cv::Mat> results;
    net_.forward(results, outputNames_);
    for (size_t i = 0; i < outputs.size(); ++i) {
      std::string problem = Store(results[i], outputs[i]);
      if (!problem.empty()) {
        return problem;
      }
    }
    return {};
  }

  static std::string Store(const cv::Mat& result, const TensorData& output) {
    const Tensor& tensor = *output.tensor;
    const size_t declared = RowCount(tensor) * RowElements(tensor);
    if (result.total() != declared || result.type() != CV_32F || !result.isContinuous()) {
      return "output \"" + tensor.name + "\" came out with " + std::to_string(result.total()) +
             " elements, the model declares " + std::to_string(declared);
    }
    const cv::Mat rows = AsRows(result, tensor);
    const auto* values = result.ptr<float>();
    if (!IsFloatingPoint(tensor) && !std::all_of(values, values + declared, IsExactInteger)) {
      return InexactInteger(tensor);
    }
    cv::Mat target = RowsOf(output);
    rows.convertTo(target, target.type());
    return {};
  }

  cv::dnn::Net net_;
  std::vector<std::string> outputNames_;
};

// Problems are reported as results; OpenCV would print them as well.
void SilenceOpenCv() {
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  cv::redirectError([](int, const char*, const char*, const char*, int, void*) { return 0; });
}

}  // namespace

std::unique_ptr<Engine> CreateEngine(const OnnxModel& model, std::string& problem) {
  SilenceOpenCv();
  try {
    return std::make_unique<DnnEngine>(model);
  } catch (const std::exception& refused) {
    problem = refused.what();
    return nullptr;
  }
}

}  // namespace quilm_host
