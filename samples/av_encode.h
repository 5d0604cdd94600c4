#ifndef MOTRACE_SAMPLES_AV_ENCODE_H_
#define MOTRACE_SAMPLES_AV_ENCODE_H_

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/rational.h>
}

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "samples/bytes.h"

/// Real H.264 and AAC, encoded with libavcodec from a synthetic picture and
/// tone. One thread, fixed settings: the same options give the same bytes on one machine.
namespace motrace::samples {

struct EncodedPacket {
  Bytes data;
  std::int64_t pts = 0;  ///< stream time base
  std::int64_t dts = 0;  ///< stream time base; below zero at the start when there are B-frames
  std::int64_t duration = 0;
  bool key = true;
};

/// Frees with one of FFmpeg's functions that take the address of the pointer.
template <auto Free>
struct Freer {
  template <typename T>
  void operator()(T* pointer) const {
    Free(&pointer);
  }
};

/// An encoded elementary stream. Move-only.
struct EncodedStream {
  AVRational time_base{1, 1000};
  /// Extradata in MP4 form: avcC for H.264, AudioSpecificConfig for AAC.
  std::unique_ptr<AVCodecParameters, Freer<avcodec_parameters_free>> parameters;
  std::vector<EncodedPacket> packets;  ///< decode order

  [[nodiscard]] Bytes extradata() const;
};

struct H264Options {
  int width = 64;
  int height = 48;
  int frames = 30;
  int frames_per_second = 30;
  int b_frames = 2;  ///< 0: decode order is display order
  int gop = 15;
  bool annex_b = false;  ///< start codes and Annex B extradata instead of avcC
};
/// Time base 1 / frames_per_second.
EncodedStream EncodeH264(const H264Options& options = {});

struct AacOptions {
  int channels = 2;
  int milliseconds = 1000;
};
/// 48 kHz, time base 1 / 48000; the first packet is the encoder's priming, with a pts below zero.
EncodedStream EncodeAac(const AacOptions& options = {});

/// A data stream for MuxWithLibavformat.
struct DataStream {
  AVRational time_base{1, 1000};
  AVCodecID codec_id = AV_CODEC_ID_BIN_DATA;
  std::uint32_t codec_tag = 0;
  std::vector<EncodedPacket> packets;
};

/// Writes the streams with one of libavformat's muxers ("mov", "mp4", "matroska", "mpegts", ...);
/// `movflags` are an option of the first two. Streams that are null are left out. Throws
/// std::runtime_error with FFmpeg's reason when the muxer refuses.
void MuxWithLibavformat(const std::filesystem::path& path, const std::string& format,
                        const EncodedStream* video, const EncodedStream* audio,
                        const DataStream* data, const std::string& movflags = "");

}  // namespace motrace::samples

#endif  // MOTRACE_SAMPLES_AV_ENCODE_H_
