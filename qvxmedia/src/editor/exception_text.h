// What an exception says, whatever its type.
#ifndef QVXMEDIA_EDITOR_EXCEPTION_TEXT_H_
#define QVXMEDIA_EDITOR_EXCEPTION_TEXT_H_

#include <exception>
#include <string>

namespace lum {

/// Of the exception that is being handled; for a catch of everything.
inline std::string CurrentExceptionText() {
  try {
    throw;
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "an exception of another type";
  }
}

}  // namespace lum

#endif  // QVXMEDIA_EDITOR_EXCEPTION_TEXT_H_
