#include "av_toolbox/remote_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/address.h"
#include "av_toolbox/media_files.h"
#include "av_toolbox/packet_log.h"
#include "support/file_server.h"

namespace lum {
namespace {

using namespace ::motrace::testing;  // NOLINT(google-build-using-namespace): the fixtures' names
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kRequests = 6;

class RemoteFileTest : public MediaFileTest {
 protected:
  std::shared_ptr<RemoteFile> At(const std::string& way, const std::string& user = "") {
    RemoteFile::Options options;
    options.requests = kRequests;
    options.pause = std::chrono::milliseconds(1);
    options.stall_s = 1;
    return std::make_shared<RemoteFile>(server_.Address(way, user), options);
  }

  // A file of numbers that do not repeat soon.
  Bytes WriteNumbers(size_t size) {
    Bytes content(size);
    uint32_t state = 1;
    for (uint8_t& byte : content) byte = static_cast<uint8_t>((state = state * 1664525 + 1) >> 24);
    WriteFile(PathOf("numbers"), content);
    return content;
  }

  FileServer server_{PathOf(".")};
};

TEST_F(RemoteFileTest, GivesThePacketsOfTheFileHoweverItIsServed) {
  const std::vector<Mp4Track> tracks{VideoTrack(60), AudioTrack(3000), GyroTrack(300, 10)};
  for (const Mp4Order order : {Mp4Order::kMoovFirst, Mp4Order::kMoovLast, Mp4Order::kFragmented}) {
    const std::string path = Write(tracks, order);
    Demuxer local(path);
    ASSERT_EQ(local.Open(nullptr, nullptr), 0);
    const PacketLog expected = ReadAll(local, {true, 1});
    Demuxer named(server_.Address("cut/input.mp4"));  // which FFmpeg itself would end early
    ASSERT_EQ(named.Open(nullptr, nullptr), 0) << named.InputProblem();
    EXPECT_TRUE(ReadAll(named, {true, 1}).packets == expected.packets);
    for (const char* way : {"plain", "busy", "cut", "stalled", "moved", "to-ticket", "guarded"}) {
      SCOPED_TRACE(way);
      if (way == std::string("stalled") && order != Mp4Order::kMoovFirst) continue;  // seconds
      Demuxer remote("");
      const auto file = At(way + std::string("/input.mp4?x=1"), "user:secret@");
      ASSERT_EQ(file->Open(), 0) << file->Problem();
      ASSERT_EQ(remote.Open(nullptr, file), 0) << remote.InputProblem();
      const PacketLog log = ReadAll(remote, {true, 1});
      EXPECT_TRUE(log.packets == expected.packets);
      EXPECT_EQ(log.end, expected.end);
      EXPECT_EQ(log.by_plan, expected.by_plan);
      EXPECT_LE(server_.TakeServed().at_once, kRequests);
    }
  }
}

TEST_F(RemoteFileTest, SaysWhatIsWrongWithoutTheAddress) {
  Write({LongTrack()});
  const struct {
    const char* way;
    int error;
    const char* problem;
  } cases[] = {
      {"missing", AVERROR_HTTP_NOT_FOUND, "answered 404"},
      {"guarded", AVERROR_HTTP_UNAUTHORIZED, "answered 401"},
      {"down", AVERROR_HTTP_SERVER_ERROR, "answered 503, at each of 5 attempts"},
      {"whole-only", AVERROR(ENOTSUP), "whole files only"},
      {"shifted", AVERROR_INVALIDDATA, "not the part"},
      {"grown", AVERROR(ESTALE), "changed"},
      {"replaced", AVERROR(ESTALE), "changed"},
      {"loop", AVERROR(EPROTO), "redirect"},
      {"to-file", AVERROR(EPROTO), "rotocol"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.way);
    Demuxer demuxer("");
    const auto file = At(c.way + std::string("/input.mp4?secret"), "wrong:secret@");
    int result = file->Open();
    std::vector<uint8_t> byte(1);
    if (result == 0) {
      file->Seek(-1, SEEK_END);
      result = file->Read(byte.data(), 1);
    }
    EXPECT_EQ(result, c.error);
    EXPECT_THAT(file->Problem(), HasSubstr(c.problem));
    EXPECT_THAT(file->Problem(), Not(HasSubstr("secret")));
    EXPECT_FALSE(file->ReadAt(0, byte.data(), 1)) << "it stays so";
  }
  Demuxer missing(server_.Address("missing/input.mp4"));
  EXPECT_EQ(missing.Open(nullptr, nullptr), AVERROR_HTTP_NOT_FOUND);
  EXPECT_THAT(missing.InputProblem(), HasSubstr("answered 404"));
  EXPECT_EQ(RemoteFile("http://127.0.0.1:1/", {1, 2, std::chrono::milliseconds(1), 1}).Open(),
            AVERROR(EIO));
}

TEST_F(RemoteFileTest, AsksForWhatIsWantedAndLittleElse) {
  const Bytes content = WriteNumbers(40'000'000);
  const auto file = At("plain/numbers");
  ASSERT_EQ(file->Open(), 0);
  EXPECT_EQ(file->Size(), 40'000'000);
  Bytes read(content.size());
  const auto expect = [&](size_t from, size_t count) {
    std::fill_n(read.begin(), count, 0);
    ASSERT_TRUE(file->ReadAt(static_cast<int64_t>(from), read.data(), count)) << file->Problem();
    EXPECT_TRUE(std::equal(read.begin(), read.begin() + static_cast<std::ptrdiff_t>(count),
                           content.begin() + static_cast<std::ptrdiff_t>(from)))
        << from;
  };
  const auto served = [&] {
    const auto taken = server_.TakeServed();
    EXPECT_LE(taken.at_once, kRequests);
    EXPECT_LE(taken.connections, kRequests);
    return taken;
  };
  (void)served();

  // Parts that lie close together are one request, others are not.
  for (int64_t at = 1'000'000; at < 1'400'000; at += 1000) file->Prefetch(at, 900);
  for (int64_t at = 2'000'000; at < 3'000'000; at += 100'000) file->Prefetch(at, 900);
  for (size_t at = 1'000'000; at < 1'400'000; at += 1000) expect(at, 900);
  for (size_t at = 2'000'000; at < 3'000'000; at += 100'000) expect(at, 900);
  auto taken = served();
  EXPECT_EQ(taken.requests, 11);
  EXPECT_EQ(taken.bytes, 399'900 + 10 * 900);

  // What was announced and is not read keeps nothing else from being read.
  file->Prefetch(3'000'000, 30'000'000);
  expect(39'000'000, 10);
  file->Prefetch(35'000'000, 500'000);
  expect(35'000'000, 500'000);
  EXPECT_LE(served().bytes, 20'000'000);

  // All of it, which is more than is held at a time; unannounced reading asks for more and more.
  expect(0, content.size());
  expect(20'000'000, 1'000'000);
  (void)served();
  const auto again = At("plain/numbers");
  ASSERT_EQ(again->Open(), 0);
  for (size_t at = 0; at < 4'000'000; at += 10'000) {
    ASSERT_TRUE(again->ReadAt(static_cast<int64_t>(at), read.data() + at, 10'000));
  }
  EXPECT_TRUE(std::equal(read.begin(), read.begin() + 4'000'000, content.begin()));
  taken = served();
  EXPECT_LE(taken.requests, 20);
  EXPECT_LE(taken.bytes, 9'000'000);

  EXPECT_EQ(again->Seek(0, AVSEEK_SIZE), 40'000'000);
  EXPECT_EQ(again->Seek(-5, SEEK_END), 39'999'995);
  EXPECT_EQ(again->Read(read.data(), 10), 5);
  EXPECT_EQ(again->Read(read.data(), 10), AVERROR_EOF);
  EXPECT_FALSE(again->ReadAt(39'999'995, read.data(), 10));
  WriteFile(PathOf("empty"), {});
  const auto empty = At("plain/empty");
  ASSERT_EQ(empty->Open(), 0) << empty->Problem();
  EXPECT_EQ(empty->Read(read.data(), 1), AVERROR_EOF);
}

TEST_F(RemoteFileTest, ANameIsAnAddressWhereItHasASchemeAndNoFileHasIt) {
  const struct {
    const char* name;
    bool web;
    const char* shown;
  } cases[] = {
      {"https://a.example/b/c.mp4", true, "https://a.example/b/c.mp4"},
      {"HTTP://u:p@a.example:80/b@c.mp4?sig=1@2#x", true, "HTTP://a.example:80/b@c.mp4"},
      {"http://u:p@a.example?sig", true, "http://a.example"},
      {"http:/a/b?c", false, "http:/a/b?c"},
      {"ftp://u:p@a/b?c", false, "ftp://u:p@a/b?c"},
      {"a/http://b?c", false, "a/http://b?c"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsWebAddress(c.name), c.web) << c.name;
    EXPECT_EQ(ShownName(c.name), c.shown);
  }
}

}  // namespace
}  // namespace lum
