#include "av_toolbox/address.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>

namespace lum {
namespace {

constexpr char kAfterScheme[] = "://";
constexpr size_t kAfterSchemeSize = sizeof(kAfterScheme) - 1;

}  // namespace

bool IsAddress(const std::string& name) {
  constexpr char kSchemeCharacters[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.";
  const size_t end = name.find_first_not_of(kSchemeCharacters);
  return end != std::string::npos && end > 0 &&
         name.compare(end, kAfterSchemeSize, kAfterScheme) == 0 && access(name.c_str(), F_OK) != 0;
}

bool IsWebAddress(const std::string& name) {
  const auto begins_with = [&name](const char* scheme, size_t size) {
    return strncasecmp(name.c_str(), scheme, size) == 0;
  };
  return (begins_with("http://", 7) || begins_with("https://", 8)) && IsAddress(name);
}

std::string ShownName(const std::string& name) {
  if (!IsWebAddress(name)) return name;
  std::string shown = name.substr(0, name.find_first_of("?#"));
  const size_t host = shown.find(kAfterScheme) + kAfterSchemeSize;
  const size_t at = shown.rfind('@', std::min(shown.find('/', host), shown.size()));
  if (at != std::string::npos && at >= host) shown.erase(host, at + 1 - host);
  return shown;
}

}  // namespace lum
