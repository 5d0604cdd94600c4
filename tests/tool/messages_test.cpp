// What a user reads on standard error when there is something to say: one line each, in plain
// words.

#include <algorithm>
#include <iterator>
#include <memory>
#include <regex>

#include "editor/file_media_src.h"
#include "editor/media_pipe.h"
#include "extraction_report.h"
#include "tool/tool_run.h"
#include "utils/vela_util.h"

namespace motrace::testing {
namespace {

namespace fs = std::filesystem;
namespace vela = lum::vela;
using ::testing::HasSubstr;
using ::testing::Not;
using Tracks = std::vector<Mp4Track>;

/// What stands in the place of an output.
enum class Fault { kNone, kNoDirectory, kFolder, kFullDisk, kTheSource };

struct MessageCase {
  const char* name;
  Tracks tracks;    ///< none: there is no input
  std::string err;  ///< lines without "motrace: ", or how they begin; IN and OUT are the paths
  std::vector<const char*> log{"]pipe run over...\n"};  ///< on standard output, among others
  bool whole = true;                ///< all files but the faulty one are there, as they should be
  std::int64_t longer = 0;          ///< bytes added to the input's end, zeros
  std::uint32_t interleave_ms = 0;  ///< 0: one track after another
  Fault fault = Fault::kNone;
  const char* output = "";  ///< the one that is faulty

  MessageCase(const char* case_name, Tracks input, std::string said)
      : name(case_name), tracks(std::move(input)), err(std::move(said)) {}
  MessageCase& Empty() { return whole = false, *this; }
  MessageCase& Fails() { return log = {"]pipe run error...\n"}, Empty(); }
  MessageCase& Logs(const char* text) { return log.push_back(text), *this; }
  MessageCase& Longer(std::int64_t by) { return longer = by, *this; }
  MessageCase& Interleaved() { return interleave_ms = 100, *this; }
  MessageCase& With(Fault what, const char* where) { return fault = what, output = where, *this; }
};

/// A track that FFmpeg takes for the data stream and that is no motion metadata.
Mp4Track Vendor(std::size_t size) {
  Mp4Track track = Mp4Track::Data("meta", "vend", 1000);
  for (int i = 0; i < 20; ++i) track.Add(Concat({ExposureSample(i, i), Bytes(size, 9)}), 10);
  return track;
}

Mp4Track Edited(const Mp4Edit& edit) {
  Mp4Track track = MotionTrack();
  track.edits = {edit};
  return track;
}

/// Gyroscope and accelerometer at rates of their own for a second, the latter `late_ms` late.
Mp4Track Rates(int gyro_hertz, int accelerate_hertz, int late_ms) {
  std::multimap<int, Bytes> samples;
  for (int i = 0; i < gyro_hertz; ++i) samples.emplace(1000 * i / gyro_hertz, GyroSample({}));
  for (int i = 0; i < accelerate_hertz; ++i) {
    samples.emplace(1000 * i / accelerate_hertz + late_ms, AccelSample({}));
  }
  Mp4Track track = Mp4Track::Camm(1000);
  for (auto at = samples.begin(); at != samples.end(); ++at) {
    const auto next = std::next(at);
    track.Add(at->second,
              next == samples.end() ? 1 : static_cast<std::uint32_t>(next->first - at->first));
  }
  return track;
}

Mp4Track BrokenVideo(size_t picture) {
  EncodedStream video = EncodeH264();
  video.packets[picture].data[0] = 0xFF;  // the length of its first unit
  return ToMp4Track(video, 90000);
}

std::vector<MessageCase> Cases() {
  const Mp4Track video = VideoTrack();
  const Mp4Track motion = MotionTrack();
  const Bytes gyro = GyroSample({});
  const Bytes accelerate = AccelSample({});
  const Bytes pair = Concat({gyro, accelerate});
  const std::string nothing = "nothing was extracted from 'IN'\n";
  using Case = MessageCase;
  return {
      Case("AllWell", {video, AudioTrack(), motion}, ""),
      Case("ZerosAtTheEnd", {video, motion}, "").Longer(100'000),
      Case("EditsDropSamples", {video, Edited({300, 36000, 1})}, ""),
      Case("MissingInput", {}, "cannot open 'IN': No such file or directory\n").Fails(),
      Case("CutIndex", {motion}, "cannot open 'IN': ").Fails().Longer(-10'000),
      Case("NoDataStream", {video},
           "'IN' has no data stream: there is no motion metadata to extract\n")
          .Empty(),
      Case("OtherDataStream", {video, Vendor(0)},
           "stream 1 of 'IN', which was read, is tagged 'vend', not 'camm'; no stream of the file "
           "is\n"),
      // FFmpeg prefers the data stream with the higher bit rate.
      Case("MotionNotChosen", {video, motion, Vendor(5000)},
           "stream 2 of 'IN', which was read, is tagged 'vend', not 'camm'; stream 1 ('camm', 440 "
           "packets) was not\n"),
      Case("TwoMotionTracks", {motion, PacketTrack({gyro})},
           "note: of the motion tracks of 'IN', stream 0 (440 packets) was read; stream 1 ('camm', "
           "1 packets) was not\n"),
      Case("LeftOut",
           {PacketTrack({pair, Stored(camm::AngleAxis{}), Stored(camm::GpsMin{1, 2, 3}),
                         Stored(camm::AngleAxis{}), CammHeader(9)})},
           "note: samples of 'IN' that are not extracted: 2 angle-axis (type 0), 1 minimal GPS "
           "(type 5), 1 of unknown types\n"),
      Case("NothingDecoded", {PacketTrack({Stored(camm::Magnetic{}), Stored(camm::Position{})})},
           "note: samples of 'IN' that are not extracted: 1 position (type 4), 1 magnetic field "
           "(type 7)\n" +
               nothing),
      Case("Reread", {PacketTrack({pair, Concat({CammHeader(0), CammHeader(1), Bytes(8, 0)})})},
           "note: samples of 'IN' that are not extracted: 1 angle-axis (type 0)\n"
           "1 samples were found in the bytes of samples of 'IN' that are not extracted: they need "
           "not be real, and later pairs in gyro.dat may have shifted\n"),
      Case("CutSample", {PacketTrack({pair, Bytes(gyro.begin(), gyro.end() - 1)})},
           "1 samples of 'IN' are cut short by the end of their packet\n"),
      Case("MoreAccelerometer", {Rates(200, 250, 0)},
           "50 accelerometer samples have no gyroscope partner and are not in gyro.dat (250 and "
           "200 samples)\n"
           "accelerometer and gyroscope samples that stand together in gyro.dat are up to 199 ms "
           "apart (accelerometer samples come every 4 ms)\n"),
      Case("MoreGyroscope", {PacketTrack({pair, gyro})},
           "note: 1 gyroscope samples have no accelerometer partner and are not in gyro.dat (2 and "
           "1 samples)\n"),
      Case("LateByHalf", {Rates(100, 100, 5)}, ""),
      Case("LateByMore", {Rates(100, 100, 6)},
           "note: accelerometer and gyroscope samples that stand together in gyro.dat are up to 6 "
           "ms apart (accelerometer samples come every 10 ms)\n"),
      Case("GyroscopeAlone", {PacketTrack({gyro})},
           "note: 1 gyroscope samples have no accelerometer partner and are not in gyro.dat (1 and "
           "0 samples)\n" +
               nothing),
      Case("EditListLeavesNothing", {video, Edited({500, -1, 1})},
           "none of the 440 motion packets of 'IN' was read: the track's edit list leaves them all "
           "out, its index is broken, or there was no memory for it\n" +
               nothing),
      Case("BrokenLaterVideo", {BrokenVideo(29), motion}, ""),
      Case("BrokenVideo", {BrokenVideo(0), motion},
           "reading 'IN' failed after 0 of 440 motion packets: Invalid data found when processing "
           "input\n" +
               nothing)
          .Fails()
          .Logs("demuxer.cpp:241]filter receive pkt err, code:-"),
      Case("CutInTheMiddle", {video, motion},
           "'IN' is damaged or ends early: 1 motion packets are cut or corrupt\n'IN' ends early: ")
          .Longer(-3000)
          .Interleaved(),
      Case("CutByAByte", {motion},
           "'IN' is damaged or ends early: 1 motion packets are cut or corrupt\n'IN' ends early: 1 "
           "bytes that its index names are missing\n1 samples of")
          .Longer(-1),
      Case("CutByAPacket", {motion},
           "'IN' ends early: 439 of 440 motion packets were there\nnote: ")
          .Longer(-16),
      Case("CutAfterTheMotion", {motion, video},
           "'IN' ends early: 10 bytes that its index names are missing, none of them motion "
           "packets\nnote: ")
          .Longer(-10),
      Case("NoDirectory", {motion},
           "cannot create 'OUT/gps.json': No such file or directory\ncannot create 'OUT/gyro.dat': "
           "No ")
          .Fails()
          .With(Fault::kNoDirectory, ""),
      Case("GpsBlocked", {motion}, "cannot create 'OUT/gps.json': Is a directory\n" + nothing)
          .Fails()
          .With(Fault::kFolder, "gps.json"),
      Case("ExposureBlocked", {motion}, "cannot create 'OUT/exposure_3.dat': Is a directory\n")
          .With(Fault::kFolder, "exposure_3.dat"),
      Case("GyroFull", {motion}, "'OUT/gyro.dat' is not whole: No space left on device\n")
          .With(Fault::kFullDisk, "gyro.dat"),
      Case("TheSource", {motion}, "cannot create 'OUT/exposure_1.dat': it is the source itself\n")
          .With(Fault::kTheSource, "exposure_1.dat"),
  };
}

class MessageTest : public ::testing::TestWithParam<MessageCase> {};

TEST_P(MessageTest, SaysWhatAUserShouldKnow) {
  const MessageCase& c = GetParam();
  TempDir dir;
  fs::path input = dir / "input.mp4";
  const fs::path out = dir / "out";
  const fs::path output = out / c.output;
  if (!c.tracks.empty()) {
    WriteMp4(input, c.tracks, {Mp4Order::kMoovFirst, c.interleave_ms});
    fs::resize_file(input, fs::file_size(input) + static_cast<std::uintmax_t>(c.longer));
  }
  if (c.fault != Fault::kNoDirectory) fs::create_directory(out);
  if (c.fault == Fault::kFolder) fs::create_directory(output);
  if (c.fault == Fault::kFullDisk) fs::create_symlink("/dev/full", output);
  if (c.fault == Fault::kTheSource) fs::create_hard_link(input, output);

  const ProcessResult run = RunTool({input, out});
  EXPECT_EQ(run.exit_code, 0);
  for (const char* text : c.log) EXPECT_THAT(run.out, HasSubstr(text));
  std::string err = std::regex_replace(run.err, std::regex("(^|\n)motrace: "), "$1");
  err = std::regex_replace(err, std::regex(input.string()), "IN");
  err = std::regex_replace(err, std::regex(out.string()), "OUT");
  if (!c.err.empty() && c.err.back() != '\n') err.resize(std::min(err.size(), c.err.size()));
  EXPECT_EQ(err, c.err);

  if (!c.whole) return;
  auto expected = ExtractPlainly(*ReadDataStream(input));
  auto files = ReadDirectory(out);
  expected.erase(c.output);
  files.erase(c.output);
  EXPECT_THAT(DifferingFiles(expected, files), ::testing::IsEmpty());
  if (HasFailure()) dir.Keep();
}

INSTANTIATE_TEST_SUITE_P(Runs, MessageTest, ::testing::ValuesIn(Cases()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Messages, FilesCutShortByALimitAreNamed) {
  const TempDir dir;
  const fs::path input = dir / "input.mp4";
  WriteMp4(input, {MotionTrack(90000, 2000)});
  const ProcessResult run = RunTool({input, dir.path()}, "ulimit -f 16;");  // 512 bytes each
  EXPECT_THAT(run.err, ::testing::AllOf(HasSubstr("gyro.dat"), HasSubstr("gps.json"),
                                        HasSubstr("File too large"), Not(HasSubstr("exposure"))));
  // What fits is there: a prefix of the whole.
  const Bytes whole = ExtractPlainly(*ReadDataStream(input)).at("gyro.dat");
  EXPECT_EQ(ReadFile(dir / "gyro.dat"), Bytes(whole.begin(), whole.begin() + 8192));
}

TEST(Messages, ControlCharactersDoNotReachTheTerminal) {
  EXPECT_EQ(vela::Quoted("a\033[31m\nb\177 \302\23331m \303\233 \302\240"),
            "'a?[31m?b? ?31m \303\233 \302\240'");
}

TEST(Messages, AListOfOtherFilesIsRefusedInWords) {
  const TempDir dir;
  const std::string list = "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nx.mp4\n";
  WriteFile(dir / "x.mp4", Bytes(list.begin(), list.end()));
  const ProcessResult run = RunTool({dir / "x.mp4", dir.path()});
  EXPECT_THAT(run.err, HasSubstr("motrace: cannot open '" + (dir / "x.mp4").string() + "': "));
  EXPECT_THAT(run.err, Not(HasSubstr("Invalid data")));
}

TEST(Messages, AnIndexAtTheEndComesTooLateThroughAPipe) {
  const TempDir dir;
  WriteMp4(dir / "file", {MotionTrack(90000, 5000)});
  const ProcessResult run =
      RunTool({"/dev/stdin", dir.path()}, "cat " + (dir / "file").string() + " |");
  EXPECT_THAT(run.err,
              HasSubstr("(it comes through a pipe, where an index at its end comes too late)"));
}

// Also with the code that a cancelled run has.
TEST(Messages, ARunThatAConsumerEndsIsNamed) {
  struct Refuses : lum::PacketConsumer {
    bool Open(lum::MediaInfo* /*info*/) override { return true; }
    bool Filter(lum::MediaInfo* info, const std::shared_ptr<lum::QVXPacket>& /*packet*/) override {
      info->error = 1;
      return false;
    }
  };
  const TempDir dir;
  const std::string input = dir / "input.mp4";
  WriteMp4(input, {MotionTrack(), VideoTrack()});
  const auto source = std::make_shared<lum::FileMediaSrc>(input);
  const auto filter = std::make_shared<CammProcessedFilter>(dir.path());
  source->SetDataConsumer(filter);
  source->SetVideoConsumer(std::make_shared<Refuses>());
  const auto pipe = std::make_shared<lum::MediaPipe>();
  pipe->AddSrc(source);
  pipe->Prepare();
  EXPECT_EQ(vela::RunPipe(pipe, 1, 1.0F, -1), 1);
  EXPECT_THAT(vela::ExtractionReport(input, *source, *filter),
              ::testing::Contains(
                  ::testing::StartsWith("the extraction of '" + input + "' stopped after ")));
  pipe->Release();
}

}  // namespace
}  // namespace motrace::testing
