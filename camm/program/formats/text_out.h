// Text on its way to a file: collected in a buffer, numbers in their shortest exact form.
#ifndef CAMM_PROGRAM_FORMATS_TEXT_OUT_H_
#define CAMM_PROGRAM_FORMATS_TEXT_OUT_H_

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace camm::formats {

/// Collects text and hands it on in large pieces. One thread.
class TextOut {
 public:
  /// @param sink gets every piece; what it throws passes through.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer, see used_
  explicit TextOut(std::function<void(std::string_view)> sink) : sink_(std::move(sink)) {}

  TextOut& operator<<(std::string_view text) {
    if (text.size() > buffer_.size() - used_) {
      Flush();
      if (text.size() > buffer_.size()) {
        sink_(text);
        return *this;
      }
    }
    std::memcpy(buffer_.data() + used_, text.data(), text.size());
    used_ += text.size();
    return *this;
  }
  TextOut& operator<<(const char* text) { return *this << std::string_view(text); }
  TextOut& operator<<(char character) { return *this << std::string_view(&character, 1); }

  /// The shortest text that reads back to the same bits; `nan`, `inf` and `-inf` where there is no
  /// number.
  template <typename T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
  TextOut& operator<<(T number) {
    return Convert(kLongestNumber, [number](char* first, char* last) {
      return std::to_chars(first, last, number).ptr;
    });
  }

  /// The same without an exponent, for formats whose numbers have none.
  /// @param number finite.
  template <typename T>
  TextOut& Plain(T number) {
    static_assert(std::is_floating_point_v<T>);
    return Convert(kLongestPlain, [number](char* first, char* last) {
      return std::to_chars(first, last, number, std::chars_format::fixed).ptr;
    });
  }

  /// As JSON has numbers: `null` where there is none.
  template <typename T>
  TextOut& Json(T number) {
    if constexpr (std::is_floating_point_v<T>) {
      if (!std::isfinite(number)) return *this << "null";
    }
    return *this << number;
  }

  /// Hands on what is collected.
  void Flush() {
    if (used_ > 0) sink_({buffer_.data(), used_});
    used_ = 0;
  }

 private:
  static constexpr std::size_t kLongestNumber = 32;
  // The smallest double has 324 places, and the sign and the point come on top.
  static constexpr std::size_t kLongestPlain = 400;

  template <typename Write>
  TextOut& Convert(std::size_t longest, Write&& write) {
    if (buffer_.size() - used_ < longest) Flush();
    char* const at = buffer_.data() + used_;
    used_ += static_cast<std::size_t>(write(at, at + longest) - at);
    return *this;
  }

  std::function<void(std::string_view)> sink_;
  std::array<char, 65536> buffer_;  // set as far as used_ says
  std::size_t used_ = 0;
};

/// The text with control bytes and broken UTF-8 as `\xNN`: names and file contents must not be able
/// to steer a terminal, nor break a format.
std::string Printable(std::string_view text);

/// Text for XML and HTML, elements and attributes alike.
std::string Escaped(std::string_view text);

/// Where a format's files go. One thread.
class Files {
 public:
  Files() = default;
  virtual ~Files() = default;
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  /// A new file.
  /// @param name a relative path; folders are made.
  /// @return owned by this.
  virtual TextOut& Create(const std::string& name) = 0;
};

}  // namespace camm::formats

#endif  // CAMM_PROGRAM_FORMATS_TEXT_OUT_H_
