#include "camm/check.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <string_view>
#include <utility>

#include "camm/ground_track.h"
#include "camm/summary.h"
#include "file_reader.h"
#include "mp4_boxes.h"
#include "time_conversion.h"

namespace camm {
namespace {

// Above these a finding is made.
constexpr std::int64_t kGapIntervals = 10;   // of the median
constexpr std::int64_t kGapNs = 50'000'000;  // and at least this
constexpr double kJitterPart = 0.25;         // of the median interval
constexpr double kRatePart = 0.1;            // between gyroscope and accelerometer
constexpr double kStandardGravity = 9.81;    // m/s^2
constexpr double kGravityError = 0.5;        // m/s^2
constexpr double kCalmAccel = 0.2;           // m/s^2, standard deviation in a window
constexpr double kCalmGyro = 0.1;            // rad/s, mean in a window
constexpr std::int64_t kWindowNs = 500'000'000;
constexpr double kFastest = 150;    // m/s: nothing on the ground is faster
constexpr double kJumpMetres = 50;  // what a fix may be off by
constexpr std::int64_t kFixGapNs = 5'000'000'000;
// What the publishing interface asks for. The longest gaps (this, and kFixGapNs) are those of its
// reference, see Profile::kStreetView; that states no other figures: those are ours, from what
// street-level cameras deliver.
constexpr std::int64_t kImuGapNs = 100'000'000;
constexpr int kLeastWidth = 3840;
constexpr double kLeastFrameRate = 1;
constexpr double kLeastGpsRate = 1;
constexpr double kLeastImuRate = 100;
constexpr double kLeastWay = 5;  // metres

std::string Number(double value, int places = 1) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", places, value);
  return text.data();
}
std::string Seconds(std::int64_t ns) { return Number(static_cast<double>(ns) * 1e-9, 3) + " s"; }
std::string Milliseconds(std::int64_t ns) {
  return Number(static_cast<double>(ns) * 1e-6, 3) + " ms";
}

class Checker {
 public:
  Checker(const std::string& path, const Recording& recording, const CheckOptions& options)
      : path_(path), options_(options), recording_(recording) {}

  CheckResult Run() {
    CheckResult result;
    result.reading = recording_.result;
    const Status status = recording_.result.status;
    if (status != Status::kWhole && status != Status::kPartial) return result;
    summary_ = Summarize(recording_);
    CheckBytes();
    for (std::size_t type = 0; type < kTypeCount; ++type) CheckTimes(type);
    CheckRates();
    CheckGravity();
    CheckGps();
    CheckEditLists();
    if (options_.profile == Profile::kStreetView) {
      CheckRequirements();
      NameAsPublished();
    }
    std::stable_sort(findings_.begin(), findings_.end(),
                     [](const Finding& a, const Finding& b) { return a.severity > b.severity; });
    result.findings = std::move(findings_);
    return result;
  }

 private:
  void Add(std::string code, Severity severity, std::int64_t time_ns, std::string detail) {
    findings_.push_back({std::move(code), severity, time_ns, std::move(detail)});
  }

  void CheckBytes() {
    for (const Problem& problem : recording_.result.problems) {
      const auto [code, severity] = [&]() -> std::pair<const char*, Severity> {
        switch (problem.kind) {
          case ProblemKind::kUnknownType:
            return {"unknown-type", Severity::kError};
          case ProblemKind::kCutSample:
            return {"cut-sample", Severity::kError};
          case ProblemKind::kReservedBytes:
            return {"reserved-bytes", Severity::kNote};
          case ProblemKind::kMissingTime:
            return {"missing-time", Severity::kError};
          case ProblemKind::kTruncatedFile:
            return {"truncated-file", Severity::kError};
          case ProblemKind::kReadError:
            return {"read-error", Severity::kError};
          case ProblemKind::kSeveralTracks:
            return {"several-tracks", Severity::kWarning};
        }
        return {"", Severity::kNote};
      }();
      Add(code, severity, problem.first_time_ns, problem.text);
    }
  }

  void CheckTimes(std::size_t type) {
    const Timing& timing = summary_.timing[type];
    const std::string name(TypeName(type));
    std::int64_t backwards_at = kNoTime;
    std::int64_t standing = 0;
    std::int64_t standing_at = kNoTime;
    // Positions have rules of their own.
    const bool regular = type != GpsMin::kType && type != Gps::kType;
    const std::int64_t longest =
        std::max(MulDiv(timing.median_interval_ns, kGapIntervals, 1), kGapNs);
    std::int64_t gaps = 0;
    for (std::size_t i = 1; i < timing.times.size(); ++i) {
      const std::int64_t before = timing.times[i - 1];
      const std::int64_t step = SaturatingSub(timing.times[i], before);
      if (step < 0 && backwards_at == kNoTime) backwards_at = timing.times[i];
      if (step == 0 && standing++ == 0) standing_at = before;
      if (step > longest) ++gaps;
    }
    if (timing.out_of_order > 0) {
      Add("time-backwards", Severity::kWarning, backwards_at,
          name + ": " + std::to_string(timing.out_of_order) +
              " samples are earlier than the one before");
    }
    if (standing > 0) {
      Add("time-standing", Severity::kWarning, standing_at,
          name + ": " + std::to_string(standing) + " samples have the time of the one before");
    }
    if (!regular) return;
    if (gaps > 0) {
      Add("gap", Severity::kWarning, timing.gap_start_ns,
          name + ": " + std::to_string(gaps) + (gaps == 1 ? " gap, " : " gaps, the longest ") +
              Milliseconds(timing.largest_gap_ns) + " at intervals of " +
              Milliseconds(timing.median_interval_ns));
    }
    if (static_cast<double>(timing.jitter_ns) >
        kJitterPart * static_cast<double>(timing.median_interval_ns)) {
      Add("jitter", Severity::kNote, kNoTime,
          name + ": intervals vary by " + Milliseconds(timing.jitter_ns) + " around " +
              Milliseconds(timing.median_interval_ns));
    }
  }

  void CheckRates() {
    const double gyro = summary_.timing[Gyro::kType].RateHz();
    const double accel = summary_.timing[Accel::kType].RateHz();
    if (gyro > 0 && accel > 0 && std::abs(gyro - accel) > kRatePart * std::max(gyro, accel)) {
      Add("unequal-rates", Severity::kNote, kNoTime,
          "gyro has " + Number(gyro) + " samples a second and accel " + Number(accel) +
              ": pair them by time, not by position");
    }
  }

  /// The accelerometer at rest shows gravity: at rest it is in windows of little motion.
  void CheckGravity() {
    struct Window {
      double count = 0, sum = 0, squares = 0, gyro_count = 0, gyro_sum = 0;
    };
    std::map<std::int64_t, Window> windows;
    for (const Timed<Accel>& sample : recording_.Of<Accel>()) {
      const auto& a = sample.value;
      const double magnitude = std::hypot(a.x_m_s2, a.y_m_s2, a.z_m_s2);
      if (sample.time_ns == kNoTime || !std::isfinite(magnitude)) continue;
      Window& window = windows[sample.time_ns / kWindowNs];
      window.count += 1;
      window.sum += magnitude;
      window.squares += magnitude * magnitude;
    }
    for (const Timed<Gyro>& sample : recording_.Of<Gyro>()) {
      const auto window = windows.find(sample.time_ns / kWindowNs);
      if (window == windows.end()) continue;
      const auto& rate = sample.value;
      window->second.gyro_count += 1;
      window->second.gyro_sum += std::hypot(rate.x_rad_s, rate.y_rad_s, rate.z_rad_s);
    }
    std::vector<std::pair<double, std::int64_t>> calm;  // magnitude, time
    for (const auto& [number, window] : windows) {
      if (window.count < 5) continue;
      const double mean = window.sum / window.count;
      const double deviation =
          std::sqrt(std::max(window.squares / window.count - mean * mean, 0.0));
      const bool turning =
          window.gyro_count > 0 && !(window.gyro_sum / window.gyro_count < kCalmGyro);
      if (deviation < kCalmAccel && !turning) calm.emplace_back(mean, number * kWindowNs);
    }
    if (calm.empty()) return;
    const auto middle = calm.begin() + static_cast<std::ptrdiff_t>(calm.size() / 2);
    std::nth_element(calm.begin(), middle, calm.end());
    if (std::abs(middle->first - kStandardGravity) < kGravityError) return;
    Add("gravity", Severity::kWarning, middle->second,
        "accel at rest is " + Number(middle->first, 2) + " m/s^2 in place of 9.81" +
            (std::abs(middle->first - 1) < kGravityError / kStandardGravity
                 ? ": the samples seem to be in g"
                 : ""));
  }

  void CheckGps() {
    TrackOptions whole;
    whole.gap_ns = std::numeric_limits<std::int64_t>::max();
    const GroundTrack full = MakeGroundTrack(recording_.Of<Gps>(), whole);
    const GroundTrack minimal = MakeGroundTrack(recording_.Of<GpsMin>(), whole);
    const GroundTrack& track = full.points > 0 ? full : minimal;
    if (const std::int64_t count = full.without_place + minimal.without_place; count > 0) {
      Add("gps-invalid", Severity::kError, kNoTime,
          std::to_string(count) + " positions are not on Earth");
    }
    if (const std::int64_t count = full.without_fix + minimal.without_fix; count > 0) {
      Add("gps-no-fix", Severity::kNote, kNoTime,
          std::to_string(count) + " GPS samples have no fix");
    }
    points_ = track.points;
    if (track.segments.empty()) return;
    const std::vector<TrackPoint>& points = track.segments.front();
    CheckJumps(points);

    const Video& video = recording_.result.video;
    if (video.stream_index < 0 || video.duration_ns <= 0) return;
    const std::int64_t video_start = video.start_ns == kNoTime ? 0 : video.start_ns;
    const std::int64_t video_end = SaturatingAdd(video_start, video.duration_ns);
    const auto [first, last] =
        std::minmax_element(points.begin(), points.end(),
                            [](const auto& a, const auto& b) { return a.time_ns < b.time_ns; });
    if (first->time_ns > video_end || last->time_ns < video_start) {
      Add("gps-outside-video", Severity::kError, first->time_ns,
          "GPS lies from " + Seconds(first->time_ns) + " to " + Seconds(last->time_ns) +
              ", the video from " + Seconds(video_start) + " to " + Seconds(video_end));
    }
  }

  void CheckJumps(const std::vector<TrackPoint>& points) {
    std::int64_t jumps = 0;
    std::int64_t gaps = 0;
    std::int64_t jump_at = kNoTime;
    std::int64_t gap_at = kNoTime;
    std::int64_t longest_ns = 0;
    double farthest = 0;
    for (std::size_t i = 1; i < points.size(); ++i) {
      const TrackPoint& a = points[i - 1];
      const TrackPoint& b = points[i];
      if (a.time_ns == kNoTime || b.time_ns == kNoTime) continue;
      const std::int64_t step_ns = SaturatingSub(b.time_ns, a.time_ns);
      const double metres =
          DistanceMetres(a.latitude_deg, a.longitude_deg, b.latitude_deg, b.longitude_deg);
      const double seconds = std::abs(static_cast<double>(step_ns)) * 1e-9;
      if (metres > kJumpMetres + kFastest * seconds) {
        if (jumps++ == 0) jump_at = b.time_ns;
        farthest = std::max(farthest, metres);
      }
      if (step_ns > kFixGapNs) {
        if (gaps++ == 0) gap_at = a.time_ns;
        longest_ns = std::max(longest_ns, step_ns);
      }
    }
    if (jumps > 0) {
      Add("gps-jump", Severity::kWarning, jump_at,
          std::to_string(jumps) + " jumps of the position, the farthest " + Number(farthest, 0) +
              " m");
    }
    if (gaps > 0) {
      Add("gps-gap", Severity::kWarning, gap_at,
          std::to_string(gaps) + " gaps between GPS fixes, the longest " + Seconds(longest_ns));
    }
  }

  /// Players that ignore edit lists put the two tracks apart by what the video's edit list moves.
  void CheckEditLists() {
    std::string ignored;
    const auto file = OpenReader({path_, nullptr}, ignored);
    if (file == nullptr) return;
    const mp4::Layout layout = ReadLayout(*file);
    const mp4::TopBox* moov = layout.Find(mp4::Type("moov"));
    if (moov == nullptr) return;
    const auto content = ReadContent(*file, *moov, mp4::kMovieLimit);
    if (!content) return;
    const auto movie = mp4::ParseMovie({content->data(), content->size()});
    if (!movie) return;
    bool motion_has_none = false;
    std::int64_t video_starts = 0;
    for (const mp4::Track& track : movie->tracks) {
      if (track.entry == mp4::Type("camm")) motion_has_none = track.edits.empty();
      if (track.handler != mp4::Type("vide") || track.edits.empty()) continue;
      for (const mp4::Edit& edit : track.edits) {
        if (edit.media_time >= 0) break;
        constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
        video_starts = MulDiv(static_cast<std::int64_t>(std::min(edit.duration, kMost)),
                              kNanosecondsPerSecond, movie->time_scale);
      }
    }
    if (motion_has_none && video_starts > 0) {
      Add("missing-edit-list", Severity::kWarning, kNoTime,
          "an edit list has the video begin at " + Seconds(video_starts) +
              ", the motion track has none: their origins may differ");
    }
  }

  /// What the publishing interface needs besides a sound file.
  void CheckRequirements() {
    const auto require = [this](bool met, const char* code, const std::string& detail) {
      if (!met) Add(code, Severity::kError, kNoTime, detail);
    };
    const Video& video = recording_.result.video;
    const auto rate = [this](std::size_t type) { return summary_.timing[type].RateHz(); };
    require(video.stream_index >= 0, "INVALID_VIDEO_FORMAT", "there is no video");
    if (video.stream_index >= 0) {
      require(video.width == 2 * video.height, "INVALID_VIDEO_DIMENSIONS",
              "the picture is not twice as wide as high: " + std::to_string(video.width) + " x " +
                  std::to_string(video.height));
      require(video.width >= kLeastWidth, "LOW_RESOLUTION",
              "the picture is " + std::to_string(video.width) + " pixels wide in place of " +
                  std::to_string(kLeastWidth));
      require(video.frame_rate_hz == 0 || video.frame_rate_hz >= kLeastFrameRate,
              "INSUFFICIENT_VIDEO_FRAMES",
              "the video has " + Number(video.frame_rate_hz) + " frames a second");
    }
    const double gps_rate = std::max(rate(Gps::kType), rate(GpsMin::kType));
    require(points_ > 1 && gps_rate >= kLeastGpsRate * 0.9, "INSUFFICIENT_GPS",
            std::to_string(points_) + " usable GPS points, " + Number(gps_rate) + " a second");
    for (const std::size_t type : {std::size_t{Gyro::kType}, std::size_t{Accel::kType}}) {
      require(rate(type) >= kLeastImuRate * 0.9, "INSUFFICIENT_IMU",
              std::string(TypeName(type)) + ": " + Number(rate(type)) +
                  " samples a second in place of " + Number(kLeastImuRate, 0));
    }
    require(recording_.Of<Gps>().empty() || summary_.where.utc.any, "INVALID_CAPTURE_TIME",
            "no GPS sample has a time");
    require(points_ < 2 || summary_.where.length_m >= kLeastWay, "INSUFFICIENT_MOVEMENT",
            "the way is " + Number(summary_.where.length_m) + " m long");
    CheckOverlap(video);
  }

  void CheckOverlap(const Video& video) {
    const Timing& gyro = summary_.timing[Gyro::kType];
    if (video.stream_index < 0 || video.duration_ns <= 0 || gyro.first_ns == kNoTime) return;
    const std::int64_t start = video.start_ns == kNoTime ? 0 : video.start_ns;
    const std::int64_t end = SaturatingAdd(start, video.duration_ns);
    if (gyro.last_ns < start || gyro.first_ns > end) {
      Add("INSUFFICIENT_OVERLAP_TIME_SERIES", Severity::kError, gyro.first_ns,
          "gyro lies from " + Seconds(gyro.first_ns) + " to " + Seconds(gyro.last_ns) +
              ", the video from " + Seconds(start) + " to " + Seconds(end));
    }
  }

  void NameAsPublished() {
    static constexpr std::pair<std::string_view, std::string_view> kNames[] = {
        {"truncated-file", "CORRUPT_VIDEO"}, {"read-error", "CORRUPT_VIDEO"},
        {"gps-jump", "JUMPY_GPS"},           {"gps-gap", "GPS_DATA_GAP"},
        {"gps-invalid", "INVALID_GPS"},      {"gps-outside-video", "NO_OVERLAP_GPS"},
        {"gravity", "INVALID_IMU"},
    };
    for (Finding& finding : findings_) {
      for (const auto& [code, name] : kNames) {
        if (finding.code == code) finding.code = name;
      }
      // The magnetometer is not asked for.
      for (const std::size_t type : {std::size_t{Gyro::kType}, std::size_t{Accel::kType}}) {
        if (finding.code == "gap" && finding.detail.rfind(TypeName(type), 0) == 0 &&
            summary_.timing[type].largest_gap_ns > kImuGapNs) {
          finding.code = "IMU_DATA_GAP";
        }
      }
    }
  }

  const std::string& path_;
  const CheckOptions& options_;
  const Recording& recording_;
  Summary summary_;
  std::int64_t points_ = 0;  // of GPS, usable
  std::vector<Finding> findings_;
};

}  // namespace

bool CheckResult::Wrong() const {
  return std::any_of(findings.begin(), findings.end(),
                     [](const Finding& finding) { return finding.severity != Severity::kNote; });
}

CheckResult Check(const std::string& path, const CheckOptions& options) {
  ReadOptions reading;
  reading.stream_index = options.stream_index;
  return Check(path, Read({path, nullptr}, reading), options);
}

CheckResult Check(const std::string& path, const Recording& recording,
                  const CheckOptions& options) {
  return Checker(path, recording, options).Run();
}

}  // namespace camm
