#include "av_toolbox/demuxer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "av_toolbox/ffmpeg_util.h"
#include "base/log_sites.h"

namespace lum {
namespace {

constexpr int kIOBufferSize = 32768;
constexpr uint8_t kAvcConfigurationVersion = 1;  // first byte of an avcC record, ISO/IEC 14496-15
constexpr AVRational kMilliseconds{1, 1000};

int ReadFromSource(void* source, uint8_t* buffer, int size) {
  return static_cast<IOSource*>(source)->Read(buffer, size);
}

int64_t SeekInSource(void* source, int64_t offset, int whence) {
  return static_cast<IOSource*>(source)->Seek(offset, whence);
}

// Empties a packet that nobody else holds, or makes a new one.
void ReuseOrRenew(std::shared_ptr<QVXPacket>& packet) {
  if (packet.use_count() == 1) {
    // Counting up and down again orders us behind whoever held it last, maybe on another thread.
    {
      // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
      const std::shared_ptr<QVXPacket> ordered = packet;
    }
    av_packet_unref(packet.get());
  } else {
    packet = NewPacket();
  }
}

bool IsAvcInMp4Form(const AVStream* stream) {
  const AVCodecParameters* par = stream->codecpar;
  return par->codec_id == AV_CODEC_ID_H264 && par->extradata != nullptr &&
         par->extradata_size > 0 && par->extradata[0] == kAvcConfigurationVersion;
}

}  // namespace

Demuxer::Demuxer(std::string url) : url_(std::move(url)) {}

Demuxer::~Demuxer() { Close(); }

int Demuxer::Open(const Options* options, const std::shared_ptr<IOSource>& io_source) {
  if (format_ctx_ != nullptr || closed_) return AVERROR(EINVAL);
  AVDictionary* dict = nullptr;
  if (options != nullptr) {
    for (const auto& [key, value] : *options) av_dict_set(&dict, key.c_str(), value.c_str(), 0);
  }

  format_ctx_ = avformat_alloc_context();
  LUM_CHECK(format_ctx_ != nullptr) << "no memory for a format context";
  format_ctx_->interrupt_callback.callback = [](void* demuxer) {
    return static_cast<int>(static_cast<Demuxer*>(demuxer)->abort_);
  };
  format_ctx_->interrupt_callback.opaque = this;
  if (io_source) AttachIOSource(io_source);
  // Replaces FFmpeg's default flags; nothing else is to be set.
  format_ctx_->flags = compat::kFormatFlagKeepSideData;

  const int ret = avformat_open_input(&format_ctx_, url_.c_str(), nullptr, &dict);
  av_dict_free(&dict);
  if (ret != 0) {  // FFmpeg has freed the context, but never a byte source's I/O context
    FreeIOContext();
    LUM_LOG_AT(kError, site::kDemuxOpenFailed)
        << "avformat open input error:" << FFmpegErrorString(ret);
    return ret;
  }
  avformat_find_stream_info(format_ctx_, nullptr);

  const auto best_stream = [this](AVMediaType type) {
    return av_find_best_stream(format_ctx_, type, -1, -1, nullptr, 0);
  };
  video_index_ = best_stream(AVMEDIA_TYPE_VIDEO);
  audio_index_ = best_stream(AVMEDIA_TYPE_AUDIO);
  subtitle_index_ = best_stream(AVMEDIA_TYPE_SUBTITLE);
  data_index_ = best_stream(AVMEDIA_TYPE_DATA);
  av_dump_format(format_ctx_, 0, compat::InputName(*format_ctx_), 0);

  const AVStream* video = VideoStream();
  return video != nullptr && IsAvcInMp4Form(video) ? InsertAnnexBFilter() : 0;
}

void Demuxer::AttachIOSource(const std::shared_ptr<IOSource>& io_source) {
  LUM_LOG_AT(kInfo, site::kDemuxCustomSource) << "use custom iosource demux.";
  io_source_ = io_source;
  auto* buffer = static_cast<uint8_t*>(av_malloc(kIOBufferSize));
  LUM_CHECK(buffer != nullptr) << "no memory for an I/O buffer";
  io_ctx_ =
      avio_alloc_context(buffer, kIOBufferSize, /*write_flag=*/0, io_source.get(), &ReadFromSource,
                         nullptr, io_source->IsSeekable() ? &SeekInSource : nullptr);
  LUM_CHECK(io_ctx_ != nullptr) << "no memory for an I/O context";
  format_ctx_->pb = io_ctx_;
}

void Demuxer::FreeIOContext() {
  if (io_ctx_ != nullptr) av_freep(static_cast<void*>(&io_ctx_->buffer));
  avio_context_free(&io_ctx_);
  io_source_.reset();
}

int Demuxer::InsertAnnexBFilter() {
  LUM_LOG_AT(kVerbose, site::kDemuxNeedsAnnexB) << "check is mp4 format, need filter to annexb";
  AVStream* video = VideoStream();
  bsf_ = std::make_shared<BSFFilter>();
  const int ret = bsf_->Open("h264_mp4toannexb", video);
  if (ret != 0) return ret;
  avcodec_parameters_copy(video->codecpar, bsf_->Context()->par_out);
  video->time_base = bsf_->Context()->time_base_out;
  return 0;
}

int Demuxer::ReadPacket(std::shared_ptr<QVXPacket>& out) {
  std::shared_ptr<QVXPacket> packet = std::move(out);
  out.reset();
  if (format_ctx_ == nullptr) return AVERROR(EINVAL);
  ReuseOrRenew(packet);
  const int ret = av_read_frame(format_ctx_, packet.get());
  if (ret == 0) out = std::move(packet);
  return ret;
}

int Demuxer::NextPacket(std::shared_ptr<QVXPacket>& out) {
  const int ret = ReadPacket(out);
  if (!bsf_) return ret;
  if (ret != 0) {
    if (ret != AVERROR_EOF || eof_) return ret;
    eof_ = true;
    LUM_LOG_AT(kVerbose, site::kDemuxReadEof) << "ReadPacket eof.";
  } else {
    // A discarded video stream's packets may still come out of the probe's buffer: nobody wants
    // them, and a broken one must not end the reading.
    if (out->stream_index != video_index_ || VideoStream()->discard == AVDISCARD_ALL) return 0;
    const int sent = bsf_->SendPacket(out);
    if (sent != 0) {
      LUM_LOG_AT(kWarning, site::kDemuxSendFailed)
          << "bsf_filter, send pkt err:" << FFmpegErrorString(sent);
    }
  }

  ReuseOrRenew(out);  // what was sent belongs to the filter now
  const int received = bsf_->ReceivePacket(out);
  if (received == 0) return 0;
  if (received == AVERROR_EOF) {
    LUM_LOG_AT(kVerbose, site::kDemuxFilterEof) << "filter receive pkt eof";
    return received;
  }
  // The filter is only drained, never flushed: after the end it may well ask for more input.
  if (eof_) return AVERROR_EOF;
  LUM_LOG_AT(kError, site::kDemuxReceiveFailed)
      << "filter receive pkt err, code:" << received << ", " << FFmpegErrorString(received);
  return received;
}

int Demuxer::Seek(int stream_index, int64_t timestamp, int flags) {
  eof_ = false;
  if (format_ctx_ == nullptr) return AVERROR(EINVAL);
  return av_seek_frame(format_ctx_, stream_index, timestamp, flags);
}

void Demuxer::DiscardStream(unsigned index) {
  if (AVStream* stream = GetStream(index)) stream->discard = AVDISCARD_ALL;
}

int64_t Demuxer::MissingBytes() const {
  if (format_ctx_ == nullptr || std::strstr(format_ctx_->iformat->name, "mp4") == nullptr) return 0;
  const int64_t size = avio_size(format_ctx_->pb);
  int64_t end = 0;
  for (unsigned i = 0; i < format_ctx_->nb_streams; ++i) {
    end = std::max(end, compat::LastIndexedByte(format_ctx_->streams[i]));
  }
  return size > 0 ? std::max<int64_t>(end - size, 0) : 0;
}

bool Demuxer::IsSeekable() const {
  return format_ctx_ != nullptr && format_ctx_->pb != nullptr &&
         (format_ctx_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0;
}

void Demuxer::Close() {
  if (closed_) return;
  avformat_close_input(&format_ctx_);
  FreeIOContext();
  closed_ = true;
}

unsigned Demuxer::StreamCount() const {
  return format_ctx_ != nullptr ? format_ctx_->nb_streams : 0;
}

AVStream* Demuxer::GetStream(unsigned index) const {
  return index < StreamCount() ? format_ctx_->streams[index] : nullptr;
}

AVStream* Demuxer::StreamAt(int index) const {
  return format_ctx_ != nullptr && index >= 0 ? format_ctx_->streams[index] : nullptr;
}

int64_t Demuxer::DurationMs(int index) const {
  const AVStream* stream = StreamAt(index);
  if (stream == nullptr || stream->duration < 0) return -1;
  return av_rescale_q(stream->duration, stream->time_base, kMilliseconds);
}

}  // namespace lum
