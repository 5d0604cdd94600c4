// The times of the samples that stand together in gyro.dat.
#ifndef MOTRACE_PAIR_TIMES_H_
#define MOTRACE_PAIR_TIMES_H_

#include <cstdint>
#include <deque>

#include "av_toolbox/ffmpeg_compat.h"

namespace lum::vela {

/// Follows how far apart in time gyroscope and accelerometer samples of the same number are. It
/// keeps only the times of samples that are ahead of their partner.
///
/// All times in the stream's time base; samples without a time (`AV_NOPTS_VALUE`) are left out.
/// Not thread-safe: one thread at a time.
class PairTimes {
 public:
  void AddGyro(int64_t time) { Add(/*lead=*/1, time); }
  void AddAccelerate(int64_t time) {
    Add(/*lead=*/-1, time);
    if (time == AV_NOPTS_VALUE) return;
    if (last_ != AV_NOPTS_VALUE && time != last_) {
      distance_ += Distance(time, last_);
      ++steps_;
    }
    last_ = time;
  }

  /// Between the two samples of a pair.
  [[nodiscard]] double largest_gap() const { return largest_gap_; }
  /// From one accelerometer time to the next, on average; 0 when there is only one.
  [[nodiscard]] double interval() const {
    return steps_ > 0 ? distance_ / static_cast<double>(steps_) : 0;
  }

 private:
  static double Distance(int64_t a, int64_t b) {
    const auto high = static_cast<uint64_t>(a > b ? a : b);
    return static_cast<double>(high - static_cast<uint64_t>(a > b ? b : a));
  }

  void Add(int lead, int64_t time) {
    const int64_t before = lead_;
    lead_ += lead;
    if (before == 0) {
      partner_ = time;
      return;
    }
    if ((before > 0) == (lead > 0)) return waiting_.push_back(time);
    if (time != partner_ && time != AV_NOPTS_VALUE && partner_ != AV_NOPTS_VALUE) {
      const double gap = Distance(time, partner_);
      if (gap > largest_gap_) largest_gap_ = gap;
    }
    if (lead_ == 0) return;
    partner_ = waiting_.front();
    waiting_.pop_front();
  }

  int64_t lead_ = 0;     // gyroscope samples beyond the accelerometer's
  int64_t partner_ = 0;  // of the next sample of the kind that has fewer: the first that waits
  std::deque<int64_t> waiting_;  // those after it
  double largest_gap_ = 0;
  int64_t last_ = AV_NOPTS_VALUE;
  double distance_ = 0;
  int64_t steps_ = 0;
};

}  // namespace lum::vela

#endif  // MOTRACE_PAIR_TIMES_H_
