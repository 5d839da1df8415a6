// thrown<E>(f): the exception of type E that `f` must throw, for tests that then look at its
// payload. Records a test failure and returns nothing when `f` returns; any other exception
// passes through and fails the test.
#pragma once

#include <gtest/gtest.h>

#include <optional>

namespace lumora2::test {

template <typename E, typename F>
std::optional<E> thrown(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e;
  }
  ADD_FAILURE() << "nothing was thrown";
  return std::nullopt;
}

}  // namespace lumora2::test
