#include "camm/program/motion_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/temp_dir.h"

namespace camm::program {
namespace {

using motrace::testing::TempDir;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class MotionLogTest : public ::testing::Test {
 protected:
  void Write(const std::string& name, const std::string& text) {
    std::filesystem::create_directories((dir_ / name).parent_path());
    motrace::testing::WriteFile(dir_ / name, {text.begin(), text.end()});
  }
  /// Type, time and first field of each sample.
  std::vector<std::string> Samples(const std::string& name, const LogOptions& options = {}) {
    std::vector<std::string> samples;
    samples_.clear();
    ReadMotionLog(dir_ / name, options, [&](const TimedSample& sample) {
      std::string text =
          std::string(TypeName(sample.sample.index())) + ' ' + std::to_string(sample.time_ns) + ' ';
      std::visit([&](const auto& value) { text += std::to_string(First(value)); }, sample.sample);
      samples.push_back(text);
      samples_.push_back(sample.sample);
    });
    return samples;
  }
  template <typename T>
  static double First(const T& sample) {
    double first = 0;
    bool found = false;
    T::Fields(sample, [&](std::string_view, const auto& value) {
      if (!found) first = static_cast<double>(value);
      found = true;
    });
    return first;
  }
  std::string ErrorOf(const std::string& name) {
    try {
      Samples(name);
    } catch (const LogError& error) {
      return error.what();
    }
    return "";
  }

  TempDir dir_;
  std::vector<Sample> samples_;
};

TEST_F(MotionLogTest, CsvFilesOfAFolderMergeByTime) {
  Write("log/gyro.csv", "time_ns,x_rad_s,y_rad_s,z_rad_s\r\n5,1,nan,1e-45\r\n20,2,0,16777217\r\n");
  Write("log/accel.csv", "x_m_s2,time_ns,y_m_s2,z_m_s2\n0.1,5,0,0\n4,-10,0,0\n");
  Write("log/gps_min.csv", "time_ns,latitude_deg,longitude_deg,altitude_m\n,48,11,500\n");
  EXPECT_THAT(Samples("log"),
              ElementsAre("gps_min " + std::to_string(kNoTime) + " 48.000000", "gyro 5 1.000000",
                          "accel 5 0.100000", "accel -10 4.000000", "gyro 20 2.000000"));
  EXPECT_EQ(std::get<Gyro>(samples_[1]).z_rad_s, 1e-45F);
  EXPECT_EQ(std::get<Accel>(samples_[2]).x_m_s2, 0.1F);
  EXPECT_THAT(Samples("log/gps_min.csv"), ::testing::SizeIs(1));
}

TEST_F(MotionLogTest, OtherProgramsLogs) {
  Write("a.jsonl",
        R"({"type":"exposure","time_ns":7,"pixel_exposure_ns":-1,"rolling_shutter_skew_ns":2}
{"type":"magnetic","time_ns":null,"x_ut":0.1,"y_ut":null,"z_ut":3}
)");
  EXPECT_THAT(Samples("a.jsonl"), ElementsAre("exposure 7 -1.000000",
                                              "magnetic " + std::to_string(kNoTime) + " 0.100000"));
  EXPECT_EQ(std::get<Magnetic>(samples_[1]).x_ut, 0.1F);
  const std::string imu = "1403636579758555392,1,2,3,4,5,6\n";
  Write("mav0/imu0/data.csv", "#timestamp [ns],w_RS_S_x [rad s^-1],a,b,c,d,e\n" + imu);
  Write("imu0.csv", "timestamp,omega_x,omega_y,omega_z,alpha_x,alpha_y,alpha_z\n" + imu);
  for (const char* name : {"", "imu0.csv"}) {
    EXPECT_THAT(Samples(name), ElementsAre("gyro 1403636579758555392 1.000000",
                                           "accel 1403636579758555392 4.000000"));
  }
  Write("a.gcsv",
        "GYROFLOW IMU LOG\nversion,1.3\ntscale,0.000001\ngscale,0.5\nascale,2\nmscale,0.01\n"
        "t,gx,gy,gz,ax,ay,az,mx,my,mz\n1500,4,0,0,1,0,0,30,0,0\n");
  EXPECT_THAT(Samples("a.gcsv"), ElementsAre("gyro 1500000 2.000000", "accel 1500000 19.613300",
                                             "magnetic 1500000 30.000000"));
}

TEST_F(MotionLogTest, GpxPointsBecomeGpsSamples) {
  const std::string head = "<gpx xmlns:x=\"v2\"><trk><trkseg><trkpt lat=\"48\" lon=\"179.999\">";
  const std::string next = "</trkpt><trkpt lat=\"48.002\" lon=\"-179.999\">";
  const std::string tail = "</trkpt></trkseg></trk></gpx>";
  Write("untimed.gpx", head + next + tail);
  EXPECT_THAT(Samples("untimed.gpx"),
              ElementsAre("gps_min 0 48.000000", "gps_min 1000000000 48.002000"));
  Write("a.gpx", head + "<time>1980-01-06T00:00:10Z</time>" + next +
                     "<ele>7</ele><time>1980-01-06T00:00:12Z</time><extensions><x:speed>2</x:speed>"
                     "<x:course>90</x:course></extensions>" +
                     tail);
  LogOptions options;
  options.rate_hz = 1;
  EXPECT_THAT(Samples("a.gpx", options), ElementsAre("gps 0 10.000000", "gps 1000000000 11.000000",
                                                     "gps 2000000000 12.000000"));
  EXPECT_NEAR(std::abs(std::get<Gps>(samples_[1]).longitude_deg), 180, 1e-9);
  EXPECT_NEAR(std::get<Gps>(samples_[1]).velocity_north_m_s, 111, 1);
  options.rate_hz = 0;
  options.start_unix_ns = 315964800LL * 1'000'000'000;
  EXPECT_THAT(Samples("a.gpx", options),
              ElementsAre("gps 10000000000 10.000000", "gps 12000000000 12.000000"));
  EXPECT_FLOAT_EQ(std::get<Gps>(samples_[1]).velocity_east_m_s, 2);
}

TEST_F(MotionLogTest, MistakesAreNamedWithTheirLine) {
  const struct {
    const char *name, *text, *error;
  } cases[] = {
      {"a.csv", "time_ns,x_rad,y_rad,z_rad\n\n1,2,3,x\n", ":3: 'x' is no number that fits here"},
      {"b.csv", "time_ns,x_rad,y_rad,z_rad\n1,2,3\n", ":2: there are 3 columns in place of 4"},
      {"c.csv", "time,x\n", "no columns of a known sample type"},
      {"a.jsonl", "{\"type\":\"gyro\",\"time_ns\":1}\n", ":1: 'x_rad_s' is missing"},
      {"b.jsonl", "{\"type\":{}}\n", ":1: this is no flat JSON object"},
      {"a.gcsv", "GYROFLOW IMU LOG\n", "the log has no table"},
      {"a.gpx", "<gpx><trkpt lat=\"1\"/></gpx>", "no latitude or longitude"},
      {"b.gpx", "<!DOCTYPE x [<!ENTITY a \"b\">]><gpx/>", "it declares entities"},
      {"c.gpx", "<gpx>", ":1: no element found"},
  };
  for (const auto& [name, text, error] : cases) {
    Write(name, text);
    EXPECT_THAT(ErrorOf(name), HasSubstr(error));
  }
  EXPECT_THAT(ErrorOf("none.csv"), HasSubstr("cannot be opened"));
}

}  // namespace
}  // namespace camm::program
