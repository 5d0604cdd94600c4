// A file that a web server has.
#ifndef QVXMEDIA_AV_TOOLBOX_REMOTE_FILE_H_
#define QVXMEDIA_AV_TOOLBOX_REMOTE_FILE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "av_toolbox/random_access.h"

namespace lum {

/// Reads a file over HTTP, in parts: each request names the first and the last byte that it wants
/// (RFC 9110, 14.2). What was announced with `Prefetch` is asked for before it is read, several
/// requests at a time; a read that was not announced asks for some bytes more, twice as many when
/// it goes on where the last one ended.
///
/// A request that fails for what may pass (no connection, no bytes for a while, an answer of 429 or
/// from 500 on) is repeated after a growing pause, from where it broke off. An answer that is not
/// the part that was asked for, or shows by its entity tag, date or size that the file is another
/// one by now, ends the reading, as does a server that only gives whole files. Redirects are
/// followed to web addresses only, and never from https to http.
///
/// Not thread-safe: one thread at a time. It has no thread: what was asked for comes in while a
/// read waits.
/// Memory: 32 MiB at most, beside what libcurl needs.
/// Errors: FFmpeg's negative codes, and words that hold no part of the address; the first one
/// stays.
class RemoteFile : public RandomAccessSource {
 public:
  struct Options {
    int requests = 16;                     ///< at a time
    int attempts = 5;                      ///< for each request
    std::chrono::milliseconds pause{200};  ///< before the second one, doubled for each later one
    int stall_s = 20;                      ///< without a connection or bytes, then it has failed
  };

  explicit RemoteFile(std::string address) : RemoteFile(std::move(address), Options()) {}
  RemoteFile(std::string address, const Options& options);
  ~RemoteFile() override;
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;

  /// Asks for the file's beginning, and so learns its size. Once, before all else.
  /// @return 0 or a negative FFmpeg error.
  int Open();

  bool IsSeekable() override { return true; }
  int64_t Size() override { return size_; }
  int64_t Position() override { return position_; }
  int Read(uint8_t* buffer, int size) override;
  int64_t Seek(int64_t offset, int whence) override;
  bool ReadAt(int64_t position, uint8_t* buffer, size_t size) override;
  void Prefetch(int64_t position, size_t size) override;
  [[nodiscard]] std::string Problem() const override { return problem_; }

 private:
  struct Part;
  struct Range {
    int64_t begin;
    int64_t end;
    int64_t unwanted;  // bytes that only join what is wanted
  };
  struct Multi;

  int ReadSome(int64_t position, uint8_t* buffer, size_t size);
  Part* PartAt(int64_t position);
  void Demand(int64_t position, size_t size);
  bool StartNext();
  void Send(Part& part);
  void Advance();
  void Wait();
  void Finish(Part& part, int curl_result);
  bool AcceptsAnswer(Part& part);
  void Retry(Part& part, int error, const std::string& problem, std::chrono::milliseconds at_least);
  void Fail(int error, const std::string& problem);

  const std::string address_;
  const Options options_;
  std::string redirected_to_;  // where the beginning was found; empty where that was the address
  int64_t size_ = -1;
  std::string entity_tag_;
  std::string date_;
  int error_ = 0;
  std::string problem_;
  int64_t position_ = 0;

  std::unique_ptr<Multi> multi_;
  std::map<int64_t, Part> parts_;  // by their first byte; no two hold the same one
  std::deque<int64_t> order_;      // of their beginning, the oldest first
  std::vector<Part*> under_way_;   // asked for, or to be asked for again
  std::deque<Range> wanted_;       // and not asked for
  int64_t unannounced_end_ = -1;   // of the last read that was not announced
  int64_t read_ahead_ = 0;
  // Bytes of parts, counted in the order of their beginning.
  int64_t begun_ = 0;
  int64_t begun_up_to_read_ = 0;  // with the latest part that was read
  int64_t held_ = 0;
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_REMOTE_FILE_H_
