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
  EXPECT_THROW((void)any_cast<char>(held), std::bad_cast);
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

TEST(Any, IntegersAreNotWidened) {
  EXPECT_THROW((void)any_cast<int64_t>(any(1)), std::bad_cast);
  EXPECT_THROW((void)any_cast<int>(any(int64_t{1})), std::bad_cast);
  EXPECT_THROW((void)any_cast<unsigned>(any(1)), std::bad_cast);
}

TEST(Any, TheCastRefersToTheHeldValue) {
  any value(7);
  any_cast<int>(value) = 8;
  EXPECT_EQ(any_cast<int>(value), 8);
}

TEST(Any, CopiesOwnTheirValues) {
  const any original(std::string("one"));
  any copy(original);
  any_cast<std::string>(copy) = "two";
  EXPECT_EQ(any_cast<std::string>(original), "one");

  any assigned(3);
  assigned = copy;
  any_cast<std::string>(copy) = "three";
  EXPECT_EQ(any_cast<std::string>(assigned), "two");

  any& self = assigned;
  assigned = self;
  EXPECT_EQ(any_cast<std::string>(assigned), "two");
}

TEST(Any, CopiesOfAPointerPointToTheSameObject) {
  std::promise<void> promise;
  const any first(&promise);
  const any second = first;  // NOLINT(performance-unnecessary-copy-initialization): what is tested
  EXPECT_EQ(any_cast<std::promise<void>*>(second), &promise);
  any_cast<std::promise<void>*>(second)->set_value();
  EXPECT_NO_THROW(promise.get_future().get());
}

TEST(Any, MovingLeavesNothingBehind) {
  any from(std::string(100, 'x'));
  const any to(std::move(from));
  EXPECT_EQ(any_cast<std::string>(to).size(), 100U);
  EXPECT_TRUE(from.empty());  // NOLINT(bugprone-use-after-move): what is tested
}

}  // namespace
}  // namespace lum
