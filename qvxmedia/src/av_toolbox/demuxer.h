// One FFmpeg input and its packets.
#ifndef QVXMEDIA_AV_TOOLBOX_DEMUXER_H_
#define QVXMEDIA_AV_TOOLBOX_DEMUXER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/bsf_filter.h"
#include "av_toolbox/io_source.h"
#include "av_toolbox/packet_util.h"

namespace lum {

class ByteInput;
class ReadingPlan;

/// Opens a container, finds its best video, audio, data and subtitle streams, and hands out its
/// packets. H.264 stored with length prefixes (MP4) leaves in Annex B form.
///
/// It reads what it is told to and nothing else: a file that is a list of other files or addresses
/// (playlist, concat script, manifest, session description) is refused, and FFmpeg opens nothing on
/// its behalf.
///
/// Not thread-safe: one thread at a time. It has no thread or lock of its own.
/// Ownership: owns the input; streams it returns live until `Close`. Shares the byte source.
/// Errors: FFmpeg's negative codes pass through unchanged; without an open input every operation
/// returns AVERROR(EINVAL), null or -1.
class Demuxer {
 public:
  using Options = std::map<std::string, std::string>;

  /// @param url name of a file, whatever it looks like. Where there is none, "http://…" and
  ///   "https://…" are read in parts (the server must have ranges), and any other "scheme://…" is
  ///   an address that FFmpeg opens.
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
  ///   again when it has no other owner.
  /// @return 0, `AVERROR_EOF` at the end, or another negative FFmpeg error.
  int ReadPacket(std::shared_ptr<QVXPacket>& out);

  /// Reads the next packet, H.264 video converted to Annex B. Results as `ReadPacket`.
  int NextPacket(std::shared_ptr<QVXPacket>& out);

  /// Moves the reading position, as `av_seek_frame`.
  int Seek(int stream_index, int64_t timestamp, int flags);

  /// Has the container skip the stream's bytes where it can. Packets that were buffered while the
  /// input was probed may still arrive. Indices without a stream are ignored.
  void DiscardStream(unsigned index);

  /// How many bytes the container's index names that lie beyond the file's end: above 0, the file
  /// was cut. 0 where the container has no such index (only MP4 and its kin do) or the size is
  /// unknown.
  [[nodiscard]] int64_t MissingBytes() const;

  /// Whether the open input can be read in any order: a file can, a pipe cannot.
  [[nodiscard]] bool IsSeekable() const;

  /// What is wrong with the input, in words for a user, where FFmpeg's code does not tell: that it
  /// is refused, or that its bytes could not be read. Empty otherwise. Stays after `Close`.
  [[nodiscard]] const std::string& InputProblem() const { return problem_; }

  /// Whether packets may be read by the container's index instead of by `av_read_frame` once all
  /// but one stream are discarded (on by default). They are equal either way.
  void SetReadingPlan(bool allowed) { plan_allowed_ = allowed; }
  /// Whether they are read so at the moment.
  [[nodiscard]] bool ReadsByPlan() const { return plan_ != nullptr; }

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
  int OpenInput(AVDictionary** options, const std::shared_ptr<IOSource>& io_source);
  int OpenLocalFile();
  int OpenRemoteFile();
  void Attach(std::unique_ptr<ByteInput> input);
  static int OpenForFFmpeg(AVFormatContext* format, AVIOContext** io, const char* url, int flags,
                           AVDictionary** options);
  [[nodiscard]] std::string Refusal() const;
  int InsertAnnexBFilter();
  void FindOnlyStream();
  int ReadFrame(QVXPacket& packet);
  int LeavePlan(QVXPacket& packet);

  bool closed_ = false;
  bool eof_ = false;
  // Negative FFmpeg errors where there is no such stream.
  int video_index_ = -1;
  int audio_index_ = -1;
  int data_index_ = -1;
  std::string url_;
  AVFormatContext* format_ctx_ = nullptr;
  decltype(AVFormatContext::io_open) ffmpegs_open_ = nullptr;
  bool input_given_ = false;          // FFmpeg has what it is to read
  std::unique_ptr<ByteInput> input_;  // null where FFmpeg opens an address
  std::string problem_;
  std::shared_ptr<BSFFilter> bsf_;

  bool plan_allowed_ = true;
  int only_stream_ = -1;           // the only one that is not discarded, else negative
  std::vector<int> packets_read_;  // of each stream; empty where no plan may be made
  std::unique_ptr<ReadingPlan> plan_;
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_DEMUXER_H_
