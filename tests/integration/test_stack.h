// The stack of one integration test: each failure of the stack fails the test.
#pragma once

#include "tests/integration/stack.h"

#include <gtest/gtest.h>

class Test_Stack : public Stack {
 public:
  Test_Stack() : Stack([](const std::string& what) { ADD_FAILURE() << what; }) {}
};
