#include "samples/av_encode.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>

namespace motrace::samples {
namespace {

struct FreeOutput {
  void operator()(AVFormatContext* context) const {
    if (context->pb != nullptr) avio_closep(&context->pb);
    avformat_free_context(context);
  }
};
using CodecContext = std::unique_ptr<AVCodecContext, Freer<avcodec_free_context>>;
using Frame = std::unique_ptr<AVFrame, Freer<av_frame_free>>;
using Packet = std::unique_ptr<AVPacket, Freer<av_packet_free>>;
using Output = std::unique_ptr<AVFormatContext, FreeOutput>;

int Check(int result, const std::string& what) {
  if (result >= 0) return result;
  char reason[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(result, reason, sizeof reason);
  throw std::runtime_error(what + ": " + reason);
}

CodecContext NewEncoder(const char* name) {
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  if (codec == nullptr) throw std::runtime_error(std::string("no encoder ") + name);
  CodecContext context(avcodec_alloc_context3(codec));
  context->thread_count = 1;
  context->flags = AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
  context->log_level_offset = AV_LOG_INFO - AV_LOG_ERROR;  // errors only
  return context;
}

/// Sends one frame (null: the end) and takes what the encoder has ready.
void Encode(AVCodecContext* encoder, const AVFrame* frame, std::vector<EncodedPacket>& packets) {
  Check(avcodec_send_frame(encoder, frame), "encode");
  const Packet packet(av_packet_alloc());
  for (;;) {
    const int result = avcodec_receive_packet(encoder, packet.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
    Check(result, "encode");
    packets.push_back({Bytes(packet->data, packet->data + packet->size), packet->pts, packet->dts,
                       packet->duration, (packet->flags & AV_PKT_FLAG_KEY) != 0});
    av_packet_unref(packet.get());
  }
}

EncodedStream NewStream(const AVCodecContext* encoder) {
  EncodedStream stream;
  stream.time_base = encoder->time_base;
  stream.parameters.reset(avcodec_parameters_alloc());
  Check(avcodec_parameters_from_context(stream.parameters.get(), encoder), "codec parameters");
  return stream;
}

void SetExtradata(AVCodecParameters* parameters, const Bytes& extradata) {
  av_freep(&parameters->extradata);
  parameters->extradata =
      static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  std::copy(extradata.begin(), extradata.end(), parameters->extradata);
  parameters->extradata_size = static_cast<int>(extradata.size());
}

/// AVCDecoderConfigurationRecord (ISO/IEC 14496-15, 5.3.3.1) of a Main profile stream, from its SPS
/// and PPS, each after a size of four bytes. The record's own sizes have two.
Bytes ToAvcc(const Bytes& parameter_sets) {
  const auto sps = parameter_sets.begin() + 4;
  const auto pps = sps + parameter_sets.at(3) + 4;
  return Concat({{1, sps[1], sps[2], sps[3], 0xFF /*4-byte lengths*/, 0xE1 /*one SPS*/},
                 Bytes(sps - 2, pps - 4),
                 {1},
                 Bytes(pps - 2, parameter_sets.end())});
}

/// A square that wanders over a gradient, so that prediction has something to do.
void Draw(AVFrame* frame, int number) {
  std::uint8_t* row = frame->data[0];
  for (int y = 0; y < frame->height; ++y, row += frame->linesize[0]) {
    for (int x = 0; x < frame->width; ++x) {
      const bool square = (x + 2 * number) % frame->width < 12 && (y + number) % frame->height < 12;
      row[x] = static_cast<std::uint8_t>(square ? 230 : 40 + x + y);
    }
  }
  for (int plane = 1; plane < 3; ++plane) {
    std::uint8_t* chroma = frame->data[plane];
    for (int y = 0; y < frame->height / 2; ++y, chroma += frame->linesize[plane]) {
      std::fill_n(chroma, frame->width / 2, std::uint8_t{128});
    }
  }
}

}  // namespace

Bytes EncodedStream::extradata() const {
  return {parameters->extradata, parameters->extradata + parameters->extradata_size};
}

EncodedStream EncodeH264(const H264Options& options) {
  const CodecContext encoder = NewEncoder("libx264");
  encoder->width = options.width;
  encoder->height = options.height;
  encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder->time_base = {1, options.frames_per_second};
  encoder->framerate = {options.frames_per_second, 1};
  encoder->gop_size = options.gop;
  encoder->max_b_frames = options.b_frames;
  AVDictionary* settings = nullptr;
  av_dict_set(&settings, "preset", "veryfast", 0);
  av_dict_set(&settings, "profile", options.b_frames > 0 ? "main" : "baseline", 0);
  // Plain B-frames where asked for, not where the encoder finds them useful.
  av_dict_set(&settings, "x264-params",
              options.annex_b ? "b-adapt=0:scenecut=0" : "b-adapt=0:scenecut=0:annexb=0", 0);
  const int opened = avcodec_open2(encoder.get(), nullptr, &settings);
  av_dict_free(&settings);
  Check(opened, "open libx264");

  EncodedStream stream = NewStream(encoder.get());
  const Frame frame(av_frame_alloc());
  frame->format = encoder->pix_fmt;
  frame->width = options.width;
  frame->height = options.height;
  Check(av_frame_get_buffer(frame.get(), 0), "frame");
  for (int i = 0; i < options.frames; ++i) {
    Check(av_frame_make_writable(frame.get()), "frame");
    Draw(frame.get(), i);
    frame->pts = i;
    Encode(encoder.get(), frame.get(), stream.packets);
  }
  Encode(encoder.get(), nullptr, stream.packets);
  for (EncodedPacket& packet : stream.packets) packet.duration = 1;
  if (!options.annex_b) SetExtradata(stream.parameters.get(), ToAvcc(stream.extradata()));
  return stream;
}

EncodedStream EncodeAac(const AacOptions& options) {
  constexpr int kSampleRate = 48000;
  const CodecContext encoder = NewEncoder("aac");
  encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
  encoder->sample_rate = kSampleRate;
  encoder->time_base = {1, kSampleRate};
  encoder->bit_rate = 32000L * options.channels;
  av_channel_layout_default(&encoder->ch_layout, options.channels);
  Check(avcodec_open2(encoder.get(), nullptr, nullptr), "open aac");

  EncodedStream stream = NewStream(encoder.get());
  const Frame frame(av_frame_alloc());
  frame->format = encoder->sample_fmt;
  frame->sample_rate = encoder->sample_rate;
  frame->nb_samples = encoder->frame_size;
  Check(av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout), "channel layout");
  Check(av_frame_get_buffer(frame.get(), 0), "frame");
  const std::int64_t total = std::int64_t{options.milliseconds} * kSampleRate / 1000;
  for (std::int64_t sample = 0; sample < total; sample += encoder->frame_size) {
    Check(av_frame_make_writable(frame.get()), "frame");
    for (int channel = 0; channel < options.channels; ++channel) {
      auto* out = reinterpret_cast<float*>(frame->data[channel]);
      for (int i = 0; i < frame->nb_samples; ++i) {
        const double seconds = static_cast<double>(sample + i) / kSampleRate;
        out[i] = static_cast<float>(0.2 * std::sin(2 * M_PI * 440 * (channel + 1) * seconds));
      }
    }
    frame->pts = sample;
    Encode(encoder.get(), frame.get(), stream.packets);
  }
  Encode(encoder.get(), nullptr, stream.packets);
  return stream;
}

void MuxWithLibavformat(const std::filesystem::path& path, const std::string& format,
                        const EncodedStream* video, const EncodedStream* audio,
                        const DataStream* data, const std::string& movflags) {
  AVFormatContext* allocated = nullptr;
  Check(avformat_alloc_output_context2(&allocated, nullptr, format.c_str(), path.c_str()),
        "muxer " + format);
  const Output output(allocated);

  struct Entry {
    const EncodedPacket* packet;
    AVRational time_base;
    AVStream* stream;
  };
  std::vector<Entry> queue;
  const auto add = [&](AVRational time_base, const std::vector<EncodedPacket>& packets) {
    AVStream* stream = avformat_new_stream(output.get(), nullptr);
    stream->time_base = time_base;
    for (const EncodedPacket& packet : packets) queue.push_back({&packet, time_base, stream});
    return stream;
  };
  for (const EncodedStream* encoded : {video, audio}) {
    if (encoded == nullptr) continue;
    AVStream* stream = add(encoded->time_base, encoded->packets);
    Check(avcodec_parameters_copy(stream->codecpar, encoded->parameters.get()), "parameters");
    stream->codecpar->codec_tag = 0;  // the container's own
    if (encoded == video) stream->avg_frame_rate = av_inv_q(encoded->time_base);
  }
  if (data != nullptr) {
    AVStream* stream = add(data->time_base, data->packets);
    stream->codecpar->codec_type = AVMEDIA_TYPE_DATA;
    stream->codecpar->codec_id = data->codec_id;
    stream->codecpar->codec_tag = data->codec_tag;
  }

  output->flags |= AVFMT_FLAG_BITEXACT;
  AVDictionary* settings = nullptr;
  if (!movflags.empty()) av_dict_set(&settings, "movflags", movflags.c_str(), 0);
  int result = avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE);
  if (result >= 0) result = avformat_write_header(output.get(), &settings);
  av_dict_free(&settings);
  Check(result, "write " + path.string());

  std::stable_sort(queue.begin(), queue.end(), [](const Entry& a, const Entry& b) {
    return av_compare_ts(a.packet->dts, a.time_base, b.packet->dts, b.time_base) < 0;
  });
  const Packet packet(av_packet_alloc());
  for (const auto& [encoded, time_base, stream] : queue) {
    Check(av_new_packet(packet.get(), static_cast<int>(encoded->data.size())), "packet");
    std::copy(encoded->data.begin(), encoded->data.end(), packet->data);
    packet->pts = encoded->pts;
    packet->dts = encoded->dts;
    packet->duration = encoded->duration;
    packet->flags = encoded->key ? AV_PKT_FLAG_KEY : 0;
    packet->stream_index = stream->index;
    av_packet_rescale_ts(packet.get(), time_base, stream->time_base);
    Check(av_interleaved_write_frame(output.get(), packet.get()), "write " + path.string());
  }
  Check(av_write_trailer(output.get()), "write " + path.string());
}

}  // namespace motrace::samples
