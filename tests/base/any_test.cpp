#include "base/any.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <future>
#include <string>
#include <utility>

namespace lum {
namespace {

template <typename T>
class AnyOf : public ::testing::Test {};
using HeldTypes = ::testing::Types<std::nullptr_t, int, int64_t, std::promise<void>*>;
TYPED_TEST_SUITE(AnyOf, HeldTypes);

TYPED_TEST(AnyOf, KnowsItsTypeAndGivesItsValueBackOnlyAsThat) {
  const auto value = TypeParam();
  const any held(value);
  EXPECT_FALSE(held.empty());
  EXPECT_EQ(held.type(), typeid(TypeParam));
  EXPECT_EQ(any_cast<TypeParam>(held), value);
  EXPECT_THROW((void)any_cast<unsigned>(held), std::bad_cast);  // nothing is converted
}

TEST(Any, EmptyHasTypeVoidAndCannotBeCast) {
  const any empty;
  EXPECT_TRUE(empty.empty());
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
  any assigned(3);
  assigned = copy;
  any& self = assigned;
  assigned = self;
  any_cast<std::string>(copy) = "three";
  EXPECT_EQ(any_cast<std::string>(assigned), "two");
  const any moved(std::move(assigned));
  EXPECT_EQ(any_cast<std::string>(moved), "two");
  EXPECT_TRUE(assigned.empty());  // NOLINT(bugprone-use-after-move): what is tested
}

}  // namespace
}  // namespace lum
