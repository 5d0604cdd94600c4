#include "base/any.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <future>
#include <string>
#include <utility>

namespace lum {
namespace {

template <typename T>
void ExpectHeld(T value) {
  const any held(value);
  EXPECT_EQ(held.type(), typeid(T));
  EXPECT_EQ(any_cast<T>(held), value);
  EXPECT_THROW((void)any_cast<unsigned>(held), std::bad_cast);  // nothing is converted
}

TEST(Any, GivesItsValueBackOnlyAsWhatItIs) {
  std::promise<void> promise;
  ExpectHeld(nullptr);
  ExpectHeld(3);
  ExpectHeld(int64_t{3});
  ExpectHeld(&promise);
  const any empty;
  EXPECT_EQ(empty.type(), typeid(void));
  try {
    (void)any_cast<int>(empty);
    FAIL() << "the cast of an empty value must throw";
  } catch (const std::bad_cast& e) {
    EXPECT_STREQ(e.what(), "bad cast");
  }
}

TEST(Any, CopiesOwnTheirValues) {
  any original(std::string("one"));
  any copy(original);
  any_cast<std::string>(copy) = "two";
  EXPECT_EQ(any_cast<std::string>(original), "one");
  any& self = copy;
  copy = self;
  const any moved(std::move(copy));
  EXPECT_EQ(any_cast<std::string>(moved), "two");
  EXPECT_TRUE(copy.empty() && !moved.empty());  // NOLINT(bugprone-use-after-move): what is tested
}

}  // namespace
}  // namespace lum
