// A running host for each test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "host/host.h"

namespace qel::host::test {

class GateTest : public testing::Test {
 protected:
  void SetUp() override;

  Host host_;
};

}  // namespace qel::host::test
