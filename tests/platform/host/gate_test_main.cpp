// Tests of the device file run in a mount namespace of their own, entered before anything makes a thread.
#include <gtest/gtest.h>

#include <cstdlib>

#include "gate_test.h"
#include "host/mount_namespace.h"

namespace qel::host::test {

std::string namespace_error;  // NOLINT: set once in main()

void GateTest::SetUp() {
  std::string error = namespace_error;
  if (error.empty() && host_.Start(error)) return;
  // Where nobody looks, a test that was left out is as good as a failed one.
  if (std::getenv("CI") != nullptr) FAIL() << error;
  GTEST_SKIP() << error;
}

}  // namespace qel::host::test

int main(int argc, char** argv) {
  qel::host::EnterPrivateMountNamespace(qel::host::test::namespace_error);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
