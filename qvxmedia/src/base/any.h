// Type-erased value that events and source state reports carry.
#ifndef QVXMEDIA_BASE_ANY_H_
#define QVXMEDIA_BASE_ANY_H_

#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace lum {

/// Copyable holder of one value of any copyable type, or of none.
///
/// Not thread-safe: one thread at a time. Copies are deep: each owns its own value (a held pointer
/// is copied as a pointer).
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): one assignment copies and moves
class any {
 public:
  /// The base of what holds a value.
  class placeholder {
   public:
    placeholder() = default;
    virtual ~placeholder() = default;
    placeholder(const placeholder&) = delete;
    placeholder& operator=(const placeholder&) = delete;
    /// A new holder with a copy of the value.
    [[nodiscard]] virtual std::unique_ptr<placeholder> clone() const = 0;
    [[nodiscard]] virtual const std::type_info& type() const noexcept = 0;
  };

  template <typename T>
  class holder final : public placeholder {
   public:
    explicit holder(T value) : held(std::move(value)) {}
    [[nodiscard]] std::unique_ptr<placeholder> clone() const override {
      return std::make_unique<holder>(held);
    }
    [[nodiscard]] const std::type_info& type() const noexcept override { return typeid(T); }

    T held;
  };

  /// Empty.
  any() noexcept = default;
  /// Holds a copy of `value`, under its decayed type.
  template <typename T, typename = std::enable_if_t<!std::is_same_v<std::decay_t<T>, any>>>
  any(T&& value)  // NOLINT(google-explicit-constructor): a value converts wherever one is taken
      : content_(std::make_unique<holder<std::decay_t<T>>>(std::forward<T>(value))) {}
  any(const any& other) : content_(other.content_ ? other.content_->clone() : nullptr) {}
  any(any&& other) noexcept = default;
  any& operator=(any other) noexcept {
    content_.swap(other.content_);
    return *this;
  }
  ~any() = default;

  [[nodiscard]] bool empty() const noexcept { return content_ == nullptr; }
  /// Type of the held value; `void` when empty.
  [[nodiscard]] const std::type_info& type() const noexcept {
    return content_ ? content_->type() : typeid(void);
  }

 private:
  template <typename T>
  friend T& any_cast(any& value);
  template <typename T>
  friend const T& any_cast(const any& value);

  std::unique_ptr<placeholder> content_;
};

/// Thrown by `any_cast` when the held type is another one.
class bad_any_cast : public std::bad_cast {
 public:
  [[nodiscard]] const char* what() const noexcept override { return "bad cast"; }
};

/// The held value, if its type is exactly `T`; nothing is converted.
/// @throws bad_any_cast (a `std::bad_cast`) otherwise, an empty value included.
template <typename T>
const T& any_cast(const any& value) {
  if (value.type() != typeid(T)) throw bad_any_cast();
  return static_cast<const any::holder<T>&>(*value.content_).held;
}

template <typename T>
T& any_cast(any& value) {
  return const_cast<T&>(any_cast<T>(static_cast<const any&>(value)));
}

}  // namespace lum

#endif  // QVXMEDIA_BASE_ANY_H_
