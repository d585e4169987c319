// Included by all session tests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "session/session.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {

using namespace std::chrono_literals;  // NOLINT(google-global-names-in-headers): only tests include it
using host::MessageKind;
namespace fs = std::filesystem;

}  // namespace qel::test
