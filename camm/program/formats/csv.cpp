// csv and jsonl: every sample, as it comes.

#include <array>
#include <cmath>
#include <string>
#include <type_traits>
#include <variant>

#include "camm/program/formats/formats.h"

namespace camm::formats {
namespace {

/// A file a type, made when its first sample comes.
class Csv : public StreamWriter {
 public:
  explicit Csv(Files& files) : files_(files) {}

  void Add(const TimedSample& sample) override {
    std::visit([&](const auto& value) { Row(sample.time_ns, value); }, sample.sample);
  }

 private:
  template <typename T>
  void Row(std::int64_t time_ns, const T& value) {
    TextOut*& out = outputs_[T::kType];
    if (out == nullptr) {
      out = &files_.Create(std::string(T::kName) + ".csv");
      *out << "time_ns";
      T::Fields(value, [out](std::string_view name, const auto&) { *out << ',' << name; });
      *out << '\n';
    }
    if (time_ns != kNoTime) *out << time_ns;
    T::Fields(value, [out](std::string_view, const auto& field) { *out << ',' << field; });
    *out << '\n';
  }

  Files& files_;
  std::array<TextOut*, kTypeCount> outputs_{};
};

class Jsonl : public StreamWriter {
 public:
  Jsonl(const Options& options, Files& files) : out_(files.Create(options.name + ".jsonl")) {}

  void Add(const TimedSample& sample) override {
    std::visit([&](const auto& value) { Line(sample.time_ns, value); }, sample.sample);
  }

 private:
  template <typename T>
  void Line(std::int64_t time_ns, const T& value) {
    out_ << R"({"type":")" << T::kName << R"(","time_ns":)";
    if (time_ns == kNoTime) {
      out_ << "null";
    } else {
      out_ << time_ns;
    }
    T::Fields(value, [this](std::string_view name, const auto& field) {
      out_ << ",\"" << name << "\":";
      if (field == 0 && std::signbit(static_cast<double>(field))) {
        out_ << "-0.0";  // many readers take -0 for 0
      } else {
        out_.Json(field);
      }
    });
    out_ << "}\n";
  }

  TextOut& out_;
};

}  // namespace

std::unique_ptr<StreamWriter> MakeCsv(const Options& /*options*/, Files& files) {
  return std::make_unique<Csv>(files);
}
std::unique_ptr<StreamWriter> MakeJsonl(const Options& options, Files& files) {
  return std::make_unique<Jsonl>(options, files);
}

}  // namespace camm::formats
