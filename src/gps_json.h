// GPS records and their JSON text.
#ifndef MOTRACE_GPS_JSON_H_
#define MOTRACE_GPS_JSON_H_

#include <cstdint>
#include <deque>
#include <string>

namespace lum::vela {

/// One GPS sample with what it shares with earlier samples of its packet.
struct GpsRecord {
  int64_t pts_ms;  ///< Of the packet, as is `dts_ms`.
  int64_t dts_ms;

  double time_gps_epoch;  ///< Seconds since the GPS epoch.
  double latitude;        ///< Degrees.
  double longitude;       ///< Degrees.
  int32_t gps_fix_type;   ///< 0 none, 2 two-dimensional, 3 three-dimensional.
  float altitude;         ///< Metres.
  float horizontal_accuracy;
  float vertical_accuracy;
  float velocity_east;  ///< Metres a second, as are the other velocities.
  float velocity_north;
  float velocity_up;
  float speed_accuracy;

  bool has_motion;    ///< A gyroscope or accelerometer sample came earlier in the packet.
  bool has_exposure;  ///< An exposure sample came earlier in the packet.
  float x;            ///< Of the last motion sample, as are `y` and `z`.
  float y;
  float z;
  int32_t pixel_exposure_time;        ///< Of the last exposure sample, nanoseconds.
  int32_t rolling_shutter_skew_time;  ///< Likewise.
};

/// The records as compact JSON, {"extended_gps_info":[...]}; "null" when there are none.
///
/// Keys stand in ascending order. Floating values have 15 significant digits, ".0" where they would
/// read as an integer, and are null where they are not finite.
std::string GpsJson(const std::deque<GpsRecord>& records);

}  // namespace lum::vela

#endif  // MOTRACE_GPS_JSON_H_
