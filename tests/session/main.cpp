#include <gtest/gtest.h>

#include <cstdlib>

#include "session/session.h"

int main(int argc, char** argv) {
  if (!qel::test::EnterTestNamespaces()) {
    // The test is skipped, but fails in CI, because nobody reads the message there.
    constexpr int kSkipped = 77;
    return std::getenv("CI") != nullptr ? EXIT_FAILURE : kSkipped;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
