#include "camm/program/formats/text_out.h"

#include <fmt/format.h>

#include <algorithm>

namespace camm::formats {
namespace {

// Length of the UTF-8 sequence at the start of `text` (RFC 3629); 0 if it is broken or a control.
std::size_t PrintableSequence(std::string_view text) {
  const auto byte = [&text](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  unsigned low = 0x80;
  unsigned high = 0xBF;
  if (first == 0xC2) low = 0xA0;  // below: controls
  if (first == 0xE0) low = 0xA0;
  if (first == 0xED) high = 0x9F;
  if (first == 0xF0) low = 0x90;
  if (first == 0xF4) high = 0x8F;
  if (first < 0xC2 || first > 0xF4 || byte(1) < low || byte(1) > high) return 0;
  // U+FFFE and U+FFFF, which XML does not allow.
  if (first == 0xEF && byte(1) == 0xBF && byte(2) >= 0xBE) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const std::size_t length = PrintableSequence(text);
    if (length == 0) {
      printable += fmt::format("\\x{:02X}", static_cast<unsigned char>(text.front()));
    } else {
      printable += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return printable;
}

std::string Escaped(std::string_view text) {
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

}  // namespace camm::formats
