#ifndef MOTRACE_SAMPLES_BYTES_H_
#define MOTRACE_SAMPLES_BYTES_H_

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace motrace::samples {

/// Raw bytes: a sample's payload, a box, a file.
using Bytes = std::vector<std::uint8_t>;

/// The parts one after another.
template <typename Parts = std::initializer_list<Bytes>>
Bytes Concat(const Parts& parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

}  // namespace motrace::samples

#endif  // MOTRACE_SAMPLES_BYTES_H_
