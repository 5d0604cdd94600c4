// One FFmpeg bitstream filter.
#ifndef QVXMEDIA_AV_TOOLBOX_BSF_FILTER_H_
#define QVXMEDIA_AV_TOOLBOX_BSF_FILTER_H_

#include <memory>
#include <string>

#include "av_toolbox/packet_util.h"

namespace lum {

/// Passes packets through a named bitstream filter.
///
/// Not thread-safe: one thread at a time.
/// Errors: FFmpeg's negative codes pass through unchanged; AVERROR(EINVAL) without an open filter.
class BSFFilter {
 public:
  /// Makes and initialises the filter `name` for the packets of `st`.
  /// @return 0, -1 when no context could be made, else the negative result of initialising it.
  int Open(const std::string& name, const AVStream* st);

  /// Hands a packet to the filter, which takes its contents; AVERROR(EAGAIN) asks to receive first.
  int SendPacket(const std::shared_ptr<QVXPacket>& packet);
  /// Fills `packet`, which must be empty; AVERROR(EAGAIN) asks to send first.
  int ReceivePacket(const std::shared_ptr<QVXPacket>& packet);

  /// The filter's context (output parameters and time base); empty before `Open`.
  [[nodiscard]] std::shared_ptr<AVBSFContext> Context() const { return ctx_; }

 private:
  std::shared_ptr<AVBSFContext> ctx_;
};

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_BSF_FILTER_H_
