#include <gtest/gtest.h>
TEST(X, Z) {}
