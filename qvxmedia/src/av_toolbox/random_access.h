// Inputs that give any of their bytes at any time.
#ifndef QVXMEDIA_AV_TOOLBOX_RANDOM_ACCESS_H_
#define QVXMEDIA_AV_TOOLBOX_RANDOM_ACCESS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "av_toolbox/io_source.h"

namespace lum {

/// A byte source that can also be read by place, and be told beforehand what will be read.
class RandomAccessSource : public IOSource {
 public:
  /// Reads from any place, without moving what `Read` gives next.
  /// @return whether all `size` bytes are there.
  virtual bool ReadAt(int64_t position, uint8_t* buffer, size_t size) = 0;
  /// Has a part fetched that `ReadAt` or `Read` will want soon, after those that were named before.
  virtual void Prefetch(int64_t position, size_t size) = 0;
  /// Why reading failed, in words for a user; empty where the error code tells all.
  [[nodiscard]] virtual std::string Problem() const { return {}; }
};

/// The file `path`.
/// @return null, with the reason in `error` (a code of FFmpeg's), when it cannot be opened.
std::unique_ptr<RandomAccessSource> OpenFile(const std::string& path, int& error);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_RANDOM_ACCESS_H_
