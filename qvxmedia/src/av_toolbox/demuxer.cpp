#include "av_toolbox/demuxer.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <utility>

#include "av_toolbox/address.h"
#include "av_toolbox/byte_input.h"
#include "av_toolbox/ffmpeg_util.h"
#include "av_toolbox/mp4_boxes.h"
#include "av_toolbox/reading_plan.h"
#include "av_toolbox/remote_file.h"
#include "base/log_sites.h"

namespace lum {
namespace {

constexpr uint8_t kAvcConfigurationVersion = 1;  // first byte of an avcC record, ISO/IEC 14496-15
constexpr AVRational kMilliseconds{1, 1000};

// Whether a format claims inputs by their name alone ("rtsp:", numbered pictures), so that FFmpeg
// would not ask for a file of that name.
bool IsClaimedByName(const std::string& name) {
  AVProbeData probe{};
  probe.filename = name.c_str();
  return av_probe_input_format(&probe, /*is_opened=*/0) != nullptr;
}

// Some formats open files without asking the format context; this they all go by.
void AllowNoProtocol(AVFormatContext* format) {
  av_freep(static_cast<void*>(&format->protocol_whitelist));
  format->protocol_whitelist = av_strdup("none");
}

// Makes a new packet if somebody else holds this one.
void RenewIfShared(std::shared_ptr<QVXPacket>& packet) {
  if (packet.use_count() != 1) {
    packet = NewPacket();
    return;
  }
  // Its last other owner, maybe on another thread, is done with it.
#if defined(__SANITIZE_THREAD__)  // knows no fences
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
  const std::shared_ptr<QVXPacket> ordered = packet;
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
}

// Empties a packet without another owner, or makes a new one.
void ReuseOrRenew(std::shared_ptr<QVXPacket>& packet) {
  RenewIfShared(packet);
  av_packet_unref(packet.get());
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

  const int ret = OpenInput(&dict, io_source);
  av_dict_free(&dict);
  if (ret != 0) {
    avformat_close_input(&format_ctx_);
    input_.reset();
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
  data_index_ = best_stream(AVMEDIA_TYPE_DATA);
  av_dump_format(format_ctx_, 0, compat::InputName(*format_ctx_), 0);

  if (options == nullptr || options->empty()) packets_read_.assign(StreamCount(), 0);
  FindOnlyStream();
  const AVStream* video = VideoStream();
  return video != nullptr && IsAvcInMp4Form(video) ? InsertAnnexBFilter() : 0;
}

int Demuxer::OpenInput(AVDictionary** options, const std::shared_ptr<IOSource>& io_source) {
  format_ctx_ = avformat_alloc_context();
  LUM_CHECK(format_ctx_ != nullptr) << "no memory for a format context";
  // FFmpeg would wait for a live playlist to grow.
  format_ctx_->interrupt_callback.callback = [](void* demuxer) {
    const AVFormatContext* const format = static_cast<Demuxer*>(demuxer)->format_ctx_;
    return static_cast<int>(!InputGuard::ListRefusal(format).empty());
  };
  format_ctx_->interrupt_callback.opaque = this;
  format_ctx_->opaque = this;
  ffmpegs_open_ = format_ctx_->io_open;
  format_ctx_->io_open = &Demuxer::OpenForFFmpeg;
  if (io_source) {
    LUM_LOG_AT(kInfo, site::kDemuxCustomSource) << "use custom iosource demux.";
    Attach(std::make_unique<ByteInput>(io_source));
  }
  // Replaces FFmpeg's default flags; nothing else is to be set.
  format_ctx_->flags = compat::kFormatFlagKeepSideData;
  if (!io_source && IsWebAddress(url_)) {
    if (const int ret = OpenRemoteFile(); ret != 0) return ret;
  } else if (!io_source && IsClaimedByName(url_) && !IsAddress(url_)) {
    if (const int ret = OpenLocalFile(); ret != 0) return ret;
  }

  int ret = avformat_open_input(&format_ctx_, url_.c_str(), nullptr, options);
  if (format_ctx_ == nullptr && input_) input_->guard().Watch(nullptr);
  problem_ = Refusal();
  // What is refused may have been opened, without what it wanted.
  if (ret == 0 && !problem_.empty()) ret = AVERROR_INVALIDDATA;
  if (ret != 0 && problem_.empty() && input_) problem_ = input_->Problem();
  if (ret == 0 && input_ && (format_ctx_->pb->seekable & AVIO_SEEKABLE_NORMAL) != 0) {
    input_->guard().HeaderIsRead();
  }
  return ret;
}

// The file that the input is named after, whatever protocol FFmpeg would take the name for.
int Demuxer::OpenLocalFile() {
  int error = 0;
  auto file = OpenFile(url_, error);
  if (file != nullptr) Attach(std::make_unique<ByteInput>(std::move(file)));
  return error;
}

// What a web server has, in parts; FFmpeg would read one after the other, and what lies between.
int Demuxer::OpenRemoteFile() {
  auto file = std::make_shared<RemoteFile>(url_);
  if (const int error = file->Open(); error != 0) {
    problem_ = file->Problem();
    return error;
  }
  Attach(std::make_unique<ByteInput>(file));
  PrefetchMovie(*input_, file->Size());
  return 0;
}

void Demuxer::Attach(std::unique_ptr<ByteInput> input) {
  input_given_ = true;
  input_ = std::move(input);
  input_->guard().Watch(format_ctx_);
  format_ctx_->pb = input_->context();
  // FFmpeg sets it itself where there is an I/O context before it opens: it is not to close it.
  format_ctx_->flags |= AVFMT_FLAG_CUSTOM_IO;
  AllowNoProtocol(format_ctx_);
}

// FFmpeg asks for its input here, and for every file that the input names.
int Demuxer::OpenForFFmpeg(AVFormatContext* format, AVIOContext** io, const char* url, int flags,
                           AVDictionary** options) {
  auto* const self = static_cast<Demuxer*>(format->opaque);
  if (self->input_given_) return AVERROR(EPERM);
  int ret = 0;
  if (IsAddress(self->url_)) {
    self->input_given_ = true;
    ret = self->ffmpegs_open_(format, io, url, flags, options);
    if (ret >= 0) AllowNoProtocol(format);
  } else {
    ret = self->OpenLocalFile();
    *io = format->pb;
  }
  return ret;
}

std::string Demuxer::Refusal() const {
  return input_ ? input_->guard().Refusal() : InputGuard::ListRefusal(format_ctx_);
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
  RenewIfShared(packet);
  std::optional<int> ret;
  if (plan_) ret = plan_->Next(*packet);
  if (!ret) {
    av_packet_unref(packet.get());
    ret = plan_ ? LeavePlan(*packet) : ReadFrame(*packet);
  }
  if (*ret == 0) out = std::move(packet);
  return *ret;
}

int Demuxer::ReadFrame(QVXPacket& packet) {
  const int64_t place = only_stream_ >= 0 ? avio_tell(format_ctx_->pb) : -1;
  const int ret = av_read_frame(format_ctx_, &packet);
  if (ret != 0) {
    if (problem_.empty()) problem_ = Refusal();
    if (problem_.empty() && ret != AVERROR_EOF && input_) problem_ = input_->Problem();
    return ret;
  }
  const auto stream = static_cast<size_t>(packet.stream_index);
  if (packets_read_.size() <= stream) return ret;
  ++packets_read_[stream];
  // Where the place in the file has moved to the packet's end, it was read just now: nothing is
  // left of what FFmpeg buffered while it probed.
  if (packet.stream_index != only_stream_) return ret;
  const int64_t now = avio_tell(format_ctx_->pb);
  if (plan_allowed_ && now != place && now == packet.pos + packet.size) {
    plan_ = ReadingPlan::Make(*format_ctx_, *input_, format_ctx_->streams[stream],
                              packets_read_[stream] - 1, packet);
    only_stream_ = -1;  // once is enough
  }
  return ret;
}

// FFmpeg has stayed where the plan began: what was handed out since is read again.
int Demuxer::LeavePlan(QVXPacket& packet) {
  int to_skip = plan_->handed_out();
  plan_.reset();
  int ret = ReadFrame(packet);
  for (; ret == 0 && to_skip > 0; --to_skip) {
    av_packet_unref(&packet);
    ret = ReadFrame(packet);
  }
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
    // A discarded video stream's packets may still come out of the probe's buffer: no consumer
    // wants them, and a broken one must not end the reading.
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
  const int ret = av_seek_frame(format_ctx_, stream_index, timestamp, flags);
  if (ret >= 0) plan_.reset();
  packets_read_.clear();
  only_stream_ = -1;
  return ret;
}

void Demuxer::DiscardStream(unsigned index) {
  AVStream* const stream = GetStream(index);
  if (stream == nullptr || stream->discard >= AVDISCARD_ALL) return;
  stream->discard = AVDISCARD_ALL;
  plan_.reset();  // it was for this one
  FindOnlyStream();
}

// Which stream a reading plan is for, if any.
void Demuxer::FindOnlyStream() {
  only_stream_ = -1;
  if (!input_ || packets_read_.empty()) return;
  for (unsigned i = 0; i < StreamCount(); ++i) {
    if (GetStream(i)->discard >= AVDISCARD_ALL) continue;
    if (only_stream_ >= 0) {
      only_stream_ = -1;
      return;
    }
    only_stream_ = static_cast<int>(i);
  }
}

int64_t Demuxer::MissingBytes() const {
  if (format_ctx_ == nullptr || !IsMp4(*format_ctx_)) return 0;
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
  plan_.reset();
  avformat_close_input(&format_ctx_);
  input_.reset();
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
