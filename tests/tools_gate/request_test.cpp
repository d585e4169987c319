// Requests as a device sees them. The device is this program's own write(), which stands before the C library's.
#include "tools_gate/request.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "gate_bytes.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/low_memory.h"
#include "tools_gate/resubmission.h"

namespace qel {
namespace {

constexpr int kFakeDevice = 12345;  // a number that no file of this program gets

// What the device does with the request at an address; returns what write() does.
using Device = std::function<ssize_t(std::byte* request)>;
thread_local Device t_device;

std::byte* AtAddress(std::uint32_t address) {
  return reinterpret_cast<std::byte*>(static_cast<std::uintptr_t>(address));
}

// The bytes that the buffer descriptor at `descriptor` names.
std::span<std::byte> BufferOf(const std::byte* descriptor) {
  EXPECT_EQ(LoadU32(descriptor + 4), 0U);
  return {AtAddress(LoadU32(descriptor)), LoadU32(descriptor + 8)};
}

TEST(RequestTest, TravelsBothWays) {
  // Small ones lie in the thread's own area, large ones in one mapped for the call. The last buffer is part of the
  // inline data.
  for (const std::uint32_t size : {1U, 1622U, 65000U, 400000U}) {
    std::vector<std::byte> inline_data = GateBytes().U32({1, 2}).U16(3);
    std::vector<std::byte> read_only(size, std::byte{0x11});
    std::vector<std::byte> writable(size + 1, std::byte{0x22});
    const TgBuffer buffers[] = {{.data = read_only.data(), .size = size},
                                {.data = writable.data(), .size = size + 1, .writable = true},
                                {.data = inline_data.data() + 8, .size = 2, .writable = true, .is_inline = true}};
    TgRequest request{.code = 0x8302, .status = 99, .inline_data = inline_data, .buffers = buffers};
    std::byte* seen = nullptr;
    t_device = [&](std::byte* place) -> ssize_t {
      seen = place;
      std::byte* const descriptors = place + 26;
      EXPECT_EQ(Copied({place, 26}), GateBytes().U32({0x8302, 0}).U16(10).U16(3).U32({0, 1, 2}).U16(3).Get());
      EXPECT_EQ(LoadU32(descriptors + 12), 0U);
      EXPECT_EQ(LoadU32(descriptors + 28), 1U);
      EXPECT_EQ(Copied(BufferOf(descriptors)), read_only);
      EXPECT_EQ(Copied(BufferOf(descriptors + 16)), writable);
      EXPECT_EQ(BufferOf(descriptors + 32).data(), place + 24);
      std::ranges::fill(BufferOf(descriptors), std::byte{0x33});
      std::ranges::fill(BufferOf(descriptors + 16), std::byte{0x44});
      std::ranges::fill(std::span(place + 16, 10), std::byte{0x55});
      StoreU32(place + 4, 0xABCD);
      return 4;
    };
    ASSERT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitSuccess) << size;
    EXPECT_EQ(request.status, 0xABCDU);
    EXPECT_EQ(inline_data, std::vector<std::byte>(10, std::byte{0x55}));
    EXPECT_EQ(writable, std::vector<std::byte>(size + 1, std::byte{0x44}));
    if (!kEveryAddressIsLow) {
      EXPECT_EQ(read_only, std::vector<std::byte>(size, std::byte{0x11}));
      // A large area is given back at once, the thread's own is not.
      void* const page = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(seen) & ~std::uintptr_t{4095});
      EXPECT_EQ(msync(page, 4096, MS_ASYNC), size > 64000 ? -1 : 0) << size;
    }
  }
}

#ifdef MAP_32BIT
TEST(RequestTest, FindsRoomWhereTheUsualPlaceIsFull) {
  constexpr std::size_t kMiB = std::size_t{1} << 20;
  constexpr std::uintptr_t kFirstGap = 256 * kMiB;
  constexpr std::uintptr_t kUsualPlace = 1024 * kMiB;  // and as long
  std::vector<void*> taken;
  const auto take = [&](std::uintptr_t at) {
    constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE;
    void* const place = mmap(reinterpret_cast<void*>(at), kMiB, PROT_NONE, kFlags, -1, 0);
    if (place != MAP_FAILED) {
      taken.push_back(place);
    }
  };
  take(kFirstGap);
  for (std::uintptr_t at = kUsualPlace; at < 2 * kUsualPlace; at += kMiB) {
    take(at);
  }
  {
    const LowMemory memory(4 * kMiB);
    ASSERT_TRUE(memory);
    const auto start = reinterpret_cast<std::uintptr_t>(memory.At(0));
    EXPECT_TRUE(start > kFirstGap && start < kUsualPlace) << start;
    std::fill_n(memory.At(0), 4 * kMiB, std::byte{1});
  }
  for (void* const place : taken) {
    munmap(place, kMiB);
  }
}
#endif

TEST(RequestTest, IsSubmittedAgainInItsPlace) {
  // Without limit; and once also when the process is to end.
  for (const std::size_t times : {1000U, 2U}) {
    if (times == 2) {
      TgLimitResubmission();
    }
    std::vector<std::byte> data(200000, std::byte{1});
    const TgBuffer buffers[] = {{.data = data.data(), .size = 200000, .writable = true}};
    TgRequest request{.code = 1, .buffers = buffers};
    std::vector<std::byte*> places;
    t_device = [&](std::byte* place) -> ssize_t {
      EXPECT_EQ(LoadU32(place + 4), 0U);
      EXPECT_EQ(Copied(BufferOf(place + 16)), data);
      places.push_back(place);
      StoreU32(place + 4, places.size() < times ? kTgStatusResubmit : 7);
      return 4;
    };
    EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitSuccess);
    EXPECT_EQ(request.status, 7U);
    EXPECT_EQ(places, std::vector<std::byte*>(times, places[0]));
  }
  TgLiftResubmissionLimits();
}

// The service stops and starts again while the host asks for the same request, and then the process is to end.
TEST(RequestTest, IsGivenUpOneSecondAfterTheLastLimit) {
  using std::chrono::milliseconds;
  const auto start = std::chrono::steady_clock::now();
  const auto passed = [&] { return std::chrono::steady_clock::now() - start; };
  TgLimitResubmissionWhileStopping(true);
  bool lifted = false;
  t_device = [&](std::byte* place) -> ssize_t {
    std::this_thread::sleep_for(milliseconds(10));
    if (lifted) {
      TgLimitResubmission();
    } else if (passed() > milliseconds(600)) {
      TgLimitResubmissionWhileStopping(false);
      lifted = true;
    }
    StoreU32(place + 4, kTgStatusResubmit);
    return 4;
  };
  TgRequest request{.code = 1};
  EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitFailure);
  EXPECT_GE(passed(), milliseconds(1600));
  EXPECT_LT(passed(), milliseconds(2500));
  TgLiftResubmissionLimits();
}

TEST(RequestTest, ReportsFailures) {
  TgRequest request{.code = 1};
  struct Case {
    ssize_t written;
    int error;
    std::uint32_t result;
  };
  for (const Case& c : {Case{-1, EINTR, kTgSubmitInterrupted}, {-1, EIO, kTgSubmitFailure}, {2, 0, kTgSubmitFailure}}) {
    int calls = 0;
    t_device = [&](std::byte*) -> ssize_t {
      ++calls;
      errno = c.error;
      return c.written;
    };
    EXPECT_EQ(TgSubmit(kFakeDevice, request), c.result);
    EXPECT_EQ(calls, 1);
  }
  std::vector<std::byte> too_long(65536);
  request.inline_data = too_long;
  EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitFailure);
  EXPECT_TRUE(kEveryAddressIsLow || !LowMemory(std::size_t{5} << 30));
}

TEST(RequestTest, ThreadsDoNotShareAnArea) {
  const auto submit = [](std::byte mark) {
    std::vector<std::byte> data(3000, mark);
    const TgBuffer buffers[] = {{.data = data.data(), .size = 3000}};
    TgRequest request{.code = 1, .buffers = buffers};
    t_device = [&](std::byte* place) -> ssize_t {
      std::this_thread::yield();
      EXPECT_EQ(Copied(BufferOf(place + 16)), data);
      return 4;
    };
    for (int i = 0; i < 2000; ++i) {
      EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitSuccess);
    }
  };
  std::jthread other(submit, std::byte{1});
  submit(std::byte{2});
}

}  // namespace
}  // namespace qel

extern "C" ssize_t write(int descriptor, const void* data, size_t size) {
  if (descriptor != qel::kFakeDevice) {
    return syscall(SYS_write, descriptor, data, size);
  }
  EXPECT_EQ(size, 4U);
  return qel::t_device(qel::AtAddress(qel::LoadU32(static_cast<const std::byte*>(data))));
}
