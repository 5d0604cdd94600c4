// One FFmpeg input and its packets.
#ifndef QVXMEDIA_AV_TOOLBOX_DEMUXER_H_
#define QVXMEDIA_AV_TOOLBOX_DEMUXER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "av_toolbox/bsf_filter.h"
#include "av_toolbox/packet_util.h"

namespace lum {

/// A byte source to read a container from, in place of a file.
///
/// Threads: called on the thread that calls the Demuxer, one call at a time.
class IOSource {
 public:
  IOSource() = default;
  virtual ~IOSource() = default;
  IOSource(const IOSource&) = delete;
  IOSource& operator=(const IOSource&) = delete;

  /// Whether `Seek` may be called. Asked once, when the input is opened.
  virtual bool IsSeekable() = 0;
  /// Total size in bytes, negative when unknown. Not used by the Demuxer.
  virtual int64_t Size() { return -1; }
  /// As the read callback of FFmpeg's `avio_alloc_context`: fills at most `size` bytes.
  /// @return bytes read, `AVERROR_EOF` at the end, or another negative FFmpeg error.
  virtual int Read(uint8_t* buffer, int size) = 0;
  /// Current position in bytes, negative when unknown. Not used by the Demuxer.
  virtual int64_t Position() { return -1; }
  /// As the seek callback of FFmpeg's `avio_alloc_context`, `AVSEEK_SIZE` included.
  virtual int64_t Seek(int64_t offset, int whence) = 0;
};

/// Opens a container, finds its best video, audio, data and subtitle streams, and hands out its
/// packets. H.264 stored with length prefixes (MP4) leaves in Annex B form.
///
/// Not thread-safe: one thread at a time. It has no thread or lock of its own.
/// Ownership: owns the input; streams it returns live until `Close`. Shares the byte source.
/// Errors: FFmpeg's negative codes pass through unchanged; without an open input every operation
/// returns AVERROR(EINVAL), null or -1.
class Demuxer {
 public:
  using Options = std::map<std::string, std::string>;

  /// @param url file name, or any URL that FFmpeg opens.
  explicit Demuxer(std::string url);
  ~Demuxer();
  Demuxer(const Demuxer&) = delete;
  Demuxer& operator=(const Demuxer&) = delete;

  /// Opens the input. Once per object.
  /// @param options for FFmpeg's demuxer; may be null.
  /// @param io_source read instead of the file; may be empty.
  /// @return 0 or a negative FFmpeg error.
  int Open(const Options* options, const std::shared_ptr<IOSource>& io_source);

  /// Reads the next packet as it is stored.
  /// @param[in,out] out the packet, null on failure. The packet object that is passed in is used
  ///   again when nobody else holds it.
  /// @return 0, `AVERROR_EOF` at the end, or another negative FFmpeg error.
  int ReadPacket(std::shared_ptr<QVXPacket>& out);

  /// Reads the next packet, H.264 video converted to Annex B. Results as `ReadPacket`.
  int NextPacket(std::shared_ptr<QVXPacket>& out);

  /// Moves the reading position, as `av_seek_frame`.
  int Seek(int stream_index, int64_t timestamp, int flags);

  /// Has the container skip the stream's bytes where it can. Packets that were buffered while the
  /// input was probed may still arrive. Indices without a stream are ignored.
  void DiscardStream(unsigned index);

  /// How many bytes the container's index names that lie behind the file's end: above 0, the file
  /// was cut. 0 where the container has no such index (only MP4 and its kin do) or the size is
  /// unknown.
  [[nodiscard]] int64_t MissingBytes() const;

  /// Whether the open input can be read in any order: a file can, a pipe cannot.
  [[nodiscard]] bool IsSeekable() const;

  /// Frees the input. Later calls do nothing.
  void Close();

  /// The open input, for what has no function here (names, durations); null when there is none.
  [[nodiscard]] const AVFormatContext* Context() const { return format_ctx_; }
  [[nodiscard]] unsigned StreamCount() const;
  /// The stream at `index`, or null.
  [[nodiscard]] AVStream* GetStream(unsigned index) const;
  /// The best stream of its kind, or null.
  [[nodiscard]] AVStream* VideoStream() const { return StreamAt(video_index_); }
  [[nodiscard]] AVStream* AudioStream() const { return StreamAt(audio_index_); }
  [[nodiscard]] AVStream* DataStream() const { return StreamAt(data_index_); }
  /// Duration of the best stream of its kind in milliseconds; -1 when unknown.
  [[nodiscard]] int64_t VideoDurationMs() const { return DurationMs(video_index_); }
  [[nodiscard]] int64_t AudioDurationMs() const { return DurationMs(audio_index_); }

 private:
  [[nodiscard]] AVStream* StreamAt(int index) const;
  [[nodiscard]] int64_t DurationMs(int index) const;
  void AttachIOSource(const std::shared_ptr<IOSource>& io_source);
  void FreeIOContext();
  int InsertAnnexBFilter();

  bool closed_ = false;
  bool eof_ = false;
  bool abort_ = false;  // what FFmpeg's interrupt callback answers
  // Negative FFmpeg errors where there is no such stream.
  int video_index_ = -1;
  int audio_index_ = -1;
  int data_index_ = -1;
  int subtitle_index_ = -1;
  std::string url_;
  AVFormatContext* format_ctx_ = nullptr;
  AVIOContext* io_ctx_ = nullptr;  // ours only with a byte source
  std::shared_ptr<BSFFilter> bsf_;
  std::shared_ptr<IOSource> io_source_;
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_DEMUXER_H_
