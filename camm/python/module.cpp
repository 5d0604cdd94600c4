// The library's recordings as NumPy arrays, without a copy of the samples.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "av_toolbox/address.h"
#include "camm/imu.h"
#include "camm/program/summary_text.h"
#include "camm/recording.h"
#include "camm/summary.h"
#include "camm/track_writer.h"

namespace py = pybind11;

namespace {

using camm::Recording;

/// Names, formats and offsets of a record's fields, as NumPy takes them.
struct Layout {
  py::list names, formats, offsets;

  void Add(const std::string& name, const py::object& format, std::ptrdiff_t offset) {
    names.append(name);
    formats.append(format);
    offsets.append(offset);
  }

  /// The fields of a sample that lies at `offset`; three along the axes also as one, `xyz_UNIT`.
  template <typename T>
  void AddSample(std::ptrdiff_t offset) {
    const T sample{};
    T::Fields(sample, [&](std::string_view name, const auto& field) {
      using Field = std::decay_t<decltype(field)>;
      const std::ptrdiff_t at =
          offset + (reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&sample));
      const py::object format = py::dtype::of<Field>();
      Add(std::string(name), format, at);
      if (name.substr(0, 2) == "x_") {
        Add("xyz" + std::string(name.substr(1)), py::make_tuple(format, py::make_tuple(3)), at);
      }
    });
  }

  [[nodiscard]] py::dtype Type(std::size_t size) const {
    return py::dtype(names, formats, offsets, static_cast<py::ssize_t>(size));
  }
};

template <typename T>
py::dtype SeriesType() {
  Layout layout;
  layout.Add("time_ns", py::dtype::of<std::int64_t>(), 0);
  layout.AddSample<T>(offsetof(camm::Timed<T>, value));
  return layout.Type(sizeof(camm::Timed<T>));
}

py::dtype ImuType() {
  Layout layout;
  layout.Add("time_ns", py::dtype::of<std::int64_t>(), offsetof(camm::ImuSample, time_ns));
  layout.AddSample<camm::Gyro>(offsetof(camm::ImuSample, gyro));
  layout.AddSample<camm::Accel>(offsetof(camm::ImuSample, accel));
  return layout.Type(sizeof(camm::ImuSample));
}

/// An array over samples that `owner` keeps alive.
template <typename Samples>
py::array View(const py::dtype& type, Samples& samples, const py::object& owner) {
  return py::array(type, {samples.size()}, {sizeof(typename Samples::value_type)}, samples.data(),
                   owner);
}

template <typename T>
void DefineSeries(py::class_<Recording, std::shared_ptr<Recording>>& recording, py::dict& types) {
  types[py::str(std::string(T::kName))] = SeriesType<T>();
  recording.def_property_readonly(std::string(T::kName).c_str(), [](const py::object& self) {
    return View(SeriesType<T>(), self.cast<Recording&>().Of<T>(), self);
  });
}

/// What a recording lacks for being read at all: the program's own words and exit code.
struct Failure {
  std::string text;
  camm::Status status;
};

void ThrowOnFailure(const std::string& path, const camm::ReadResult& result) {
  if (result.status != camm::Status::kWhole && result.status != camm::Status::kPartial) {
    throw Failure{lum::ShownName(path) + ": " + camm::program::WhyUnread(result), result.status};
  }
}

camm::ReadOptions Options(int stream, const std::string& origin) {
  camm::ReadOptions options;
  options.stream_index = stream;
  if (origin == "first packet") {
    options.origin = camm::Origin::kFirstPacket;
  } else if (origin != "container") {
    throw py::value_error("origin is \"container\" or \"first packet\", not \"" + origin + "\"");
  }
  return options;
}

/// Appends an array's samples, whose type is a series' own.
template <typename T>
void Append(const py::dict& arrays, std::vector<camm::TimedSample>& samples) {
  const py::str name{std::string(T::kName)};
  if (!arrays.contains(name)) return;
  const auto array = arrays[name].cast<py::array>();
  const auto* series = static_cast<const camm::Timed<T>*>(array.data());
  for (py::ssize_t i = 0; i < array.size(); ++i) {
    samples.push_back({series[i].time_ns, series[i].value});
  }
}

/// In the order of time; at one time, types in the order of their numbers.
std::vector<camm::TimedSample> Merged(const py::dict& arrays) {
  std::vector<camm::TimedSample> samples;
  Append<camm::AngleAxis>(arrays, samples);
  Append<camm::Exposure>(arrays, samples);
  Append<camm::Gyro>(arrays, samples);
  Append<camm::Accel>(arrays, samples);
  Append<camm::Position>(arrays, samples);
  Append<camm::GpsMin>(arrays, samples);
  Append<camm::Gps>(arrays, samples);
  Append<camm::Magnetic>(arrays, samples);
  std::stable_sort(samples.begin(), samples.end(),
                   [](const auto& a, const auto& b) { return a.time_ns < b.time_ns; });
  return samples;
}

void Write(const std::string& path, const py::dict& arrays, const std::string& video, bool replace,
           bool overwrite) {
  const std::vector<camm::TimedSample> samples = Merged(arrays);
  camm::WriterOptions options;
  options.video = video;
  options.existing = replace ? camm::ExistingTrack::kReplace : camm::ExistingTrack::kRefuse;
  options.overwrite = overwrite;
  camm::WriteResult result;
  {
    const py::gil_scoped_release unlocked;
    camm::TrackWriter writer(path, options);
    for (const camm::TimedSample& sample : samples) writer.Add(sample.time_ns, sample.sample);
    result = writer.Finish();
  }
  if (result.status != camm::Status::kWhole) throw Failure{result.error, result.status};
}

/// Samples one at a time. They are read in batches, without the interpreter's lock.
class SampleIterator {
 public:
  SampleIterator(std::string path, const camm::ReadOptions& options)
      : path_(std::move(path)), reader_({path_, nullptr}, options) {}

  camm::TimedSample Next() {
    if (next_ == batch_.size()) Refill();
    return batch_[next_++];
  }

 private:
  static constexpr std::size_t kBatch = 4096;

  void Refill() {
    bool more = false;
    next_ = 0;
    if (!done_) {
      const py::gil_scoped_release unlocked;
      more = reader_.Next(batch_, kBatch);
    }
    if (more) return;
    batch_.clear();
    if (!std::exchange(done_, true)) {
      const camm::ReadResult result = reader_.Finish();
      // A track without samples is the end at once.
      if (result.status != camm::Status::kNoSamples) ThrowOnFailure(path_, result);
    }
    throw py::stop_iteration();
  }

  std::string path_;
  camm::SampleReader reader_;
  std::vector<camm::TimedSample> batch_;
  std::size_t next_ = 0;
  bool done_ = false;
};

py::dict FieldsOf(const camm::TimedSample& sample) {
  py::dict fields;
  std::visit(
      [&fields](const auto& value) {
        std::decay_t<decltype(value)>::Fields(value, [&fields](std::string_view name, auto field) {
          fields[py::str(std::string(name))] = field;
        });
      },
      sample.sample);
  return fields;
}

void DefineError(py::module_& module) {
  static const py::exception<Failure> failure(module, "Error");
  // NOLINTNEXTLINE(performance-unnecessary-value-param): the type that pybind11 wants
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const Failure& caught) {
      // File names need not be UTF-8.
      const auto text = py::reinterpret_steal<py::object>(PyUnicode_DecodeFSDefaultAndSize(
          caught.text.data(), static_cast<py::ssize_t>(caught.text.size())));
      const py::object error = py::handle(failure.ptr())(text);
      error.attr("status") = static_cast<int>(caught.status);
      PyErr_SetObject(failure.ptr(), error.ptr());
    }
  });
}

void DefineRecording(py::module_& module) {
  py::class_<Recording, std::shared_ptr<Recording>> recording(module, "Recording");
  py::dict types;
  DefineSeries<camm::AngleAxis>(recording, types);
  DefineSeries<camm::Exposure>(recording, types);
  DefineSeries<camm::Gyro>(recording, types);
  DefineSeries<camm::Accel>(recording, types);
  DefineSeries<camm::Position>(recording, types);
  DefineSeries<camm::GpsMin>(recording, types);
  DefineSeries<camm::Gps>(recording, types);
  DefineSeries<camm::Magnetic>(recording, types);
  module.attr("DTYPES") = types;
  recording.def_property_readonly("problems", [](const Recording& self) {
    std::vector<std::string> texts;
    for (const camm::Problem& problem : self.result.problems) texts.push_back(problem.text);
    return texts;
  });
}

void DefineSamples(py::module_& module) {
  py::class_<camm::TimedSample>(module, "Sample")
      .def_property_readonly("type",
                             [](const camm::TimedSample& self) {
                               return std::string(camm::TypeName(self.sample.index()));
                             })
      .def_readonly("time_ns", &camm::TimedSample::time_ns)
      .def("asdict", &FieldsOf)
      .def("__getattr__",
           [](const camm::TimedSample& self, const py::str& name) {
             const py::dict fields = FieldsOf(self);
             if (!fields.contains(name)) {
               throw py::attribute_error("a sample of type " +
                                         std::string(camm::TypeName(self.sample.index())) +
                                         " has no field " + std::string(name));
             }
             return py::object(fields[name]);
           })
      .def("__repr__", [](const camm::TimedSample& self) {
        return "Sample(" + std::string(camm::TypeName(self.sample.index())) +
               ", time_ns=" + std::to_string(self.time_ns) + ", " +
               std::string(py::repr(FieldsOf(self))) + ")";
      });

  py::class_<SampleIterator>(module, "SampleIterator")
      .def("__iter__", [](const py::object& self) { return self; })
      .def("__next__", &SampleIterator::Next);
}

void DefineReading(py::module_& module) {
  module.def("read", [](const std::string& path, int stream, const std::string& origin) {
    const camm::ReadOptions options = Options(stream, origin);
    auto read = std::make_shared<Recording>();
    {
      const py::gil_scoped_release unlocked;
      *read = camm::Read({path, nullptr}, options);
    }
    ThrowOnFailure(path, read->result);
    return read;
  });
  module.def("samples", [](const std::string& path, int stream, const std::string& origin) {
    const camm::ReadOptions options = Options(stream, origin);
    const py::gil_scoped_release unlocked;
    return std::make_unique<SampleIterator>(path, options);
  });
}

void DefineImu(py::module_& module) {
  module.def("imu", [](const Recording& self) {
    auto merged = std::make_unique<std::vector<camm::ImuSample>>();
    {
      const py::gil_scoped_release unlocked;
      *merged = camm::MergeImu(self.Of<camm::Gyro>(), self.Of<camm::Accel>()).samples;
    }
    std::vector<camm::ImuSample>& samples = *merged;
    const py::capsule owner(merged.release(), [](void* samples_of_array) {
      delete static_cast<std::vector<camm::ImuSample>*>(samples_of_array);
    });
    return View(ImuType(), samples, owner);
  });
}

}  // namespace

PYBIND11_MODULE(_camm, module) {
  camm::SilenceMessages();
  module.attr("NO_TIME") = camm::kNoTime;
  DefineError(module);
  DefineRecording(module);
  DefineSamples(module);
  DefineReading(module);
  DefineImu(module);
  module.def("info", [](const Recording& self, const std::string& path) {
    const py::gil_scoped_release unlocked;
    return camm::program::SummaryJson(lum::ShownName(path), camm::Summarize(self));
  });
  module.def("write", &Write);
}
