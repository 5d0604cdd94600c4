// The eight sample types of the Camera Motion Metadata format, and their bytes.
//
// Format: https://developers.google.com/streetview/publish/camm-spec. A packet of a `camm` track
// holds one or more samples, back to back: two reserved bytes (zero), the type as a little-endian
// 16-bit number, then the type's fields, little-endian and without padding. Every type has a fixed
// size.
#ifndef CAMM_SAMPLES_H_
#define CAMM_SAMPLES_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace camm {

// Each sample is a plain struct of its fields in stored order. `kType` is its number in the format,
// `kName` the name that files, columns and series carry. `Fields(sample, visit)` calls
// `visit(name, field)` for every field in stored order; the name ends in the unit.
#define CAMM_DETAIL_FIELD(name) visit(std::string_view(#name), self.name)

/// Orientation of the camera: a rotation vector (axis times angle).
struct AngleAxis {
  static constexpr std::uint16_t kType = 0;
  static constexpr std::string_view kName = "angle_axis";
  float x_rad = 0, y_rad = 0, z_rad = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(x_rad);
    CAMM_DETAIL_FIELD(y_rad);
    CAMM_DETAIL_FIELD(z_rad);
  }
};

/// Exposure of one video frame. The skew is the time between the first and the last row's exposure.
struct Exposure {
  static constexpr std::uint16_t kType = 1;
  static constexpr std::string_view kName = "exposure";
  std::int32_t pixel_exposure_ns = 0, rolling_shutter_skew_ns = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(pixel_exposure_ns);
    CAMM_DETAIL_FIELD(rolling_shutter_skew_ns);
  }
};

/// Angular rate about the camera's axes, counter-clockwise positive.
struct Gyro {
  static constexpr std::uint16_t kType = 2;
  static constexpr std::string_view kName = "gyro";
  float x_rad_s = 0, y_rad_s = 0, z_rad_s = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(x_rad_s);
    CAMM_DETAIL_FIELD(y_rad_s);
    CAMM_DETAIL_FIELD(z_rad_s);
  }
};

/// Specific force along the camera's axes: gravity included.
struct Accel {
  static constexpr std::uint16_t kType = 3;
  static constexpr std::string_view kName = "accel";
  float x_m_s2 = 0, y_m_s2 = 0, z_m_s2 = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(x_m_s2);
    CAMM_DETAIL_FIELD(y_m_s2);
    CAMM_DETAIL_FIELD(z_m_s2);
  }
};

/// Position of the camera in a local frame.
struct Position {
  static constexpr std::uint16_t kType = 4;
  static constexpr std::string_view kName = "position";
  float x_m = 0, y_m = 0, z_m = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(x_m);
    CAMM_DETAIL_FIELD(y_m);
    CAMM_DETAIL_FIELD(z_m);
  }
};

/// GPS position without time and accuracy (WGS 84).
struct GpsMin {
  static constexpr std::uint16_t kType = 5;
  static constexpr std::string_view kName = "gps_min";
  double latitude_deg = 0, longitude_deg = 0, altitude_m = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(latitude_deg);
    CAMM_DETAIL_FIELD(longitude_deg);
    CAMM_DETAIL_FIELD(altitude_m);
  }
};

/// GPS position with its time since the GPS epoch (1980-01-06 UTC, no leap seconds), fix
/// (0 none, 2 two-dimensional, 3 three-dimensional), accuracies and velocities.
struct Gps {
  static constexpr std::uint16_t kType = 6;
  static constexpr std::string_view kName = "gps";
  double time_gps_s = 0;
  std::int32_t fix_type = 0;
  double latitude_deg = 0, longitude_deg = 0;
  float altitude_m = 0, horizontal_accuracy_m = 0, vertical_accuracy_m = 0;
  float velocity_east_m_s = 0, velocity_north_m_s = 0, velocity_up_m_s = 0, speed_accuracy_m_s = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(time_gps_s);
    CAMM_DETAIL_FIELD(fix_type);
    CAMM_DETAIL_FIELD(latitude_deg);
    CAMM_DETAIL_FIELD(longitude_deg);
    CAMM_DETAIL_FIELD(altitude_m);
    CAMM_DETAIL_FIELD(horizontal_accuracy_m);
    CAMM_DETAIL_FIELD(vertical_accuracy_m);
    CAMM_DETAIL_FIELD(velocity_east_m_s);
    CAMM_DETAIL_FIELD(velocity_north_m_s);
    CAMM_DETAIL_FIELD(velocity_up_m_s);
    CAMM_DETAIL_FIELD(speed_accuracy_m_s);
  }
};

/// Ambient magnetic field along the camera's axes.
struct Magnetic {
  static constexpr std::uint16_t kType = 7;
  static constexpr std::string_view kName = "magnetic";
  float x_ut = 0, y_ut = 0, z_ut = 0;

  template <typename Self, typename Visit>
  static void Fields(Self& self, Visit&& visit) {
    CAMM_DETAIL_FIELD(x_ut);
    CAMM_DETAIL_FIELD(y_ut);
    CAMM_DETAIL_FIELD(z_ut);
  }
};

#undef CAMM_DETAIL_FIELD

/// Any sample; `index()` is its type's number.
using Sample = std::variant<AngleAxis, Exposure, Gyro, Accel, Position, GpsMin, Gps, Magnetic>;

inline constexpr std::size_t kTypeCount = std::variant_size_v<Sample>;
/// Bytes of a sample's header, and of each type's fields after it.
inline constexpr std::size_t kHeaderSize = 4;
inline constexpr std::array<std::size_t, kTypeCount> kPayloadSize{12, 8, 12, 12, 12, 24, 56, 12};

/// The type's name, as in `Gyro::kName`.
/// @param type below `kTypeCount`.
std::string_view TypeName(std::size_t type);

/// What is wrong with a packet's bytes.
enum class DefectKind {
  kUnknownType,    ///< a type above 7: its size is unknown, so the rest of the packet is left out
  kCutSample,      ///< the packet ends inside a sample
  kReservedBytes,  ///< the two reserved bytes are not zero; the sample is good all the same
};

struct Defect {
  DefectKind kind;
  std::size_t offset;  ///< of the sample's first byte in the packet
  unsigned type;       ///< as stored; 0 where the packet ends before it
};

/// Calls `on_sample` for each sample of a packet, in stored order, and `on_defect` for what is
/// wrong with it. Steps by each type's full size; never looks for samples elsewhere. An empty
/// packet holds nothing and has no defect. Any thread.
/// @param data may be null when `size` is 0.
void Decode(const std::uint8_t* data, std::size_t size,
            const std::function<void(const Sample&)>& on_sample,
            const std::function<void(const Defect&)>& on_defect);

/// Appends the sample's bytes, header included: the inverse of `Decode`, bit for bit.
void Encode(const Sample& sample, std::vector<std::uint8_t>& out);

}  // namespace camm

#endif  // CAMM_SAMPLES_H_
