// The link and its requests as the device sees them. This program replaces the C library's write() to simulate the
// device, and mmap() to simulate that the preferred low memory is in use.
#include "tools_gate/link.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <thread>

#include "gate_bytes.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/low_memory.h"
#include "tools_gate/product_version.h"
#include "tools_gate/resubmission.h"

namespace qel {
namespace {

constexpr int kFakeDevice = 12345;  // no file of this program gets this number
constexpr std::uint32_t kElsewhere = 0xFFFFFFFF;

// Handles a request of this thread in place of the device. Returns the result of write().
thread_local std::function<ssize_t(std::byte* request)> t_device;
bool g_first_choice_is_full = false;

std::byte* AtAddress(std::uint32_t address) {
  return reinterpret_cast<std::byte*>(static_cast<std::uintptr_t>(address));
}

// A buffer of a request. The device may write to it.
std::span<std::byte> Buffer(const std::byte* request, std::size_t index) {
  const std::byte* const descriptor = request + 16 + LoadU16(request + 8) + 16 * index;
  EXPECT_EQ(LoadU32(descriptor + 4), 0U);
  return {AtAddress(LoadU32(descriptor)), LoadU32(descriptor + 8)};
}

// The whole request: header, inline data, and for each buffer its flags, its offset if it is inside the request, and
// its bytes.
GateBytes Seen(const std::byte* request) {
  const std::size_t descriptors = std::size_t{16} + LoadU16(request + 8);
  GateBytes seen = Copied({request, descriptors});
  for (std::size_t i = 0; i < LoadU16(request + 10); ++i) {
    const std::span<std::byte> buffer = Buffer(request, i);
    const bool is_inside = buffer.data() >= request && buffer.data() < request + descriptors;
    seen.U32({LoadU32(request + descriptors + 16 * i + 12),
              is_inside ? static_cast<std::uint32_t>(buffer.data() - request) : kElsewhere});
    seen.Raw(buffer);
  }
  return seen;
}

TEST(RequestTest, TravelsBothWaysOnEachThread) {
  // Small requests use the memory area of the thread. Large requests use an area that is mapped for one call.
  for (const std::uint32_t size : {1U, 1622U, 65000U, 400000U}) {
    std::barrier both_have_submitted(2);
    const auto submit = [&](std::byte mark) {
      GateBytes inline_data = GateBytes().U32({1, 2}).U16(3);
      std::vector<std::byte> read_only(size, mark);
      std::vector<std::byte> writable(size + 1, std::byte{0x22});
      const TgBuffer buffers[] = {{.data = read_only.data(), .size = size},
                                  {.data = writable.data(), .size = size + 1, .writable = true},
                                  {.data = inline_data.data() + 8, .size = 2, .writable = true, .is_inline = true}};
      TgRequest request{.code = 0x8302, .status = 99, .inline_data = inline_data, .buffers = buffers};
      GateBytes expected = GateBytes().U32({0x8302, 0}).U16(10).U16(3).U32({0}).Raw(inline_data);
      expected.U32({0, kElsewhere}).Raw(read_only).U32({1, kElsewhere}).Raw(writable).U32({1, 24}).U16(3);
      const std::byte* place = nullptr;
      t_device = [&](std::byte* at) -> ssize_t {
        place = at;
        both_have_submitted.arrive_and_wait();
        EXPECT_TRUE(Seen(at) == expected) << size;
        std::ranges::fill(Buffer(at, 0), std::byte{0x33});
        std::ranges::fill(Buffer(at, 1), std::byte{0x44});
        std::ranges::fill(std::span(at + 16, 10), std::byte{0x55});
        StoreU32(at + 4, 0xABCD);
        return 4;
      };
      EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitSuccess);
      EXPECT_EQ(request.status, 0xABCDU);
      EXPECT_EQ(inline_data, std::vector<std::byte>(10, std::byte{0x55}));
      EXPECT_EQ(writable, std::vector<std::byte>(size + 1, std::byte{0x44}));
      if (!kEveryAddressIsLow) {
        EXPECT_EQ(read_only, std::vector<std::byte>(size, mark));
        // The area of a large request is unmapped at once, the thread's area is not.
        both_have_submitted.arrive_and_wait();
        void* const page = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(place) & ~std::uintptr_t{4095});
        EXPECT_EQ(msync(page, 4096, MS_ASYNC), size > 64000 ? -1 : 0) << size;
        both_have_submitted.arrive_and_wait();
      }
    };
    std::jthread other(submit, std::byte{1});
    submit(std::byte{2});
  }
}

#ifdef __LP64__  // elsewhere every address is low
TEST(RequestTest, FindsLowMemoryIfThePreferredAreaIsFull) {
  g_first_choice_is_full = true;
  const LowMemory first(100000);
  const LowMemory second(100000);
  g_first_choice_is_full = false;
  ASSERT_TRUE(first && second);
  EXPECT_LE(reinterpret_cast<std::uintptr_t>(first.At(0)) + 100000, reinterpret_cast<std::uintptr_t>(second.At(0)));
  EXPECT_LE(reinterpret_cast<std::uintptr_t>(second.At(100000)), std::uintptr_t{1} << 32);
  EXPECT_FALSE(LowMemory(std::size_t{5} << 30));
}
#endif

TEST(RequestTest, IsResubmittedAtTheSameAddress) {
  std::vector<std::byte> data(70000, std::byte{1});
  const TgBuffer buffers[] = {{.data = data.data(), .size = 70000, .writable = true}};
  TgRequest request{.code = 1, .buffers = buffers};
  const GateBytes expected = GateBytes().U32({1, 0, 1 << 16, 0, 1, kElsewhere}).Raw(data);
  std::vector<std::byte*> places;
  t_device = [&](std::byte* place) -> ssize_t {
    EXPECT_TRUE(Seen(place) == expected);
    places.push_back(place);
    StoreU32(place + 4, places.size() < 300 ? kTgStatusResubmit : 7);
    return 4;
  };
  EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitSuccess);
  EXPECT_EQ(request.status, 7U);
  EXPECT_EQ(places, std::vector<std::byte*>(300, places[0]));
}

// The service stops, starts and stops again while the host keeps asking for the same request.
TEST(RequestTest, IsGivenUpOneSecondAfterTheLastStop) {
  using std::chrono::milliseconds;
  const auto start = std::chrono::steady_clock::now();
  const auto passed = [&] { return std::chrono::steady_clock::now() - start; };
  TgLimitResubmissionWhileStopping(true);
  t_device = [&](std::byte* place) -> ssize_t {
    std::this_thread::sleep_for(milliseconds(10));
    TgLimitResubmissionWhileStopping(passed() < milliseconds(300) || passed() > milliseconds(600));
    StoreU32(place + 4, passed() < milliseconds(4000) ? kTgStatusResubmit : 0);
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
  for (const auto& [written, error, result] :
       {std::tuple(-1, EINTR, kTgSubmitInterrupted), {-1, EIO, kTgSubmitFailure}, {2, 0, kTgSubmitFailure}}) {
    t_device = [error = error, written = written](std::byte*) {
      errno = error;
      return written;
    };
    EXPECT_EQ(TgSubmit(kFakeDevice, request), result);
  }
  std::vector<std::byte> too_long(65536);
  request.inline_data = too_long;
  EXPECT_EQ(TgSubmit(kFakeDevice, request), kTgSubmitFailure);
}

// A link to a simulated device, whose answers the test sets.
class LinkTest : public testing::Test {
 protected:
  LinkTest() {
    t_device = [this](std::byte* request) {
      seen_.push_back(Seen(request));
      StoreU32(request + 4, status_);
      std::byte* const sub_header = LoadU16(request + 8) != 0 ? request + 16 : Buffer(request, 0).data();
      StoreU32(sub_header + 20, static_cast<std::uint32_t>(result_));
      return write_result_;
    };
  }

  // Opens the link to a host that wants messages inline.
  void OpenLink() {
    result_ = -1;
    ASSERT_EQ(TgLinkOpen(link_), kTgSuccess);
    result_ = 0;
    seen_.clear();
  }

  std::uint32_t status_ = 0;
  ssize_t write_result_ = 4;
  std::int32_t result_ = 0;
  std::vector<GateBytes> seen_;

  int opened_ = 0;
  int hypervisor_calls_ = 0;
  TgChannelState channel_{
      .open_device = [this](int& descriptor) { return ++opened_, descriptor = kFakeDevice, kTgSubmitSuccess; },
      .call_hypervisor = [this](HypervisorRegisters&) { return ++hypervisor_calls_, false; }};
  TgLink link_{.channel = &channel_};
};

// In the session tests, the host stand-in checks the bytes of probe and service messages. The samples of the fuzz
// target "service_link" check what the host's answers mean.
TEST_F(LinkTest, ProbesAChannelOncePerProcess) {
  for (int times = 0; times < 2; ++times) {
    EXPECT_EQ(TgLinkSendMessage(link_, nullptr, 0, 0), kTgNotOpen);
    ASSERT_EQ(TgLinkOpen(link_), kTgSuccess);
    EXPECT_EQ(link_.last_status, 0);
    EXPECT_EQ(seen_.size(), 1U);
    EXPECT_EQ(TgLinkClose(link_), kTgSuccess);
  }
  // The device's answer, how often two links open the device, and the result of the second link. The first link also
  // tries the hypervisor and fails; the hypervisor is not asked again.
  for (const auto& [status, opened, second] :
       {std::tuple(5U, 1, kTgRejected), {kTgStatusFailure, 2, kTgChannelFailure}}) {
    status_ = status;
    channel_.device = channel_.hypervisor = TgChannelState::kUnknown;
    opened_ = hypervisor_calls_ = 0;
    EXPECT_EQ(TgLinkOpen(link_), kTgChannelFailure);
    EXPECT_EQ(TgLinkOpen(link_), second);
    EXPECT_EQ(opened_, opened);
    EXPECT_EQ(hypervisor_calls_, 1);
    EXPECT_TRUE(link_.kind == 0 && link_.descriptor == 0 && link_.last_status == -11);
  }
}

TEST_F(LinkTest, ReportsFailuresOfTheChannelAndWrongArguments) {
  OpenLink();
  write_result_ = -1;
  EXPECT_EQ(TgLinkSendMessage(link_, nullptr, 0, 0), kTgChannelFailure);
  EXPECT_EQ(TgRegisterService(link_, "name", nullptr, 1, 0, nullptr, {}), kTgNotDelivered);
  EXPECT_EQ(TgRegisterService(link_, nullptr, "title", 1, 0, nullptr, {}), kTgInvalidArgument);
}

TEST_F(LinkTest, RegistersAndUnregistersByteForByte) {
  OpenLink();
  const auto message = [](std::uint32_t size, std::uint32_t payload) {
    return GateBytes().U32(
        {0x8050, 0, 32 + size, 0, 32, 0, size, 0, 0, 0, 0, 0, 14, 0, 1, 0, payload, 0x1000, 0, 8, 0x2001, 0, 1, 3});
  };
  GateBytes complete = message(158, 130).U32({5, 0x20CA, 1}).Text("title");
  complete.U32({40, 0x20CB, 2, kProductMajor, kProductMinor, kProductBuild, 0x80000000, 0, 5, 9, 9, 0, 0});
  complete.U32({2, 0x20CC, 3}).Text("s!").U32({2, 0x20CD, 4}).Text("!?").U32({1, 0x2191, 5}).Text("n");
  EXPECT_EQ(TgRegisterService(link_, "n", "title", 0, 5, "s!", std::as_bytes(std::span("!?", 2))), kTgSuccess);
  EXPECT_EQ(TgUnregisterService(link_, "name"), kTgSuccess);
  EXPECT_EQ(seen_,
            (std::vector<GateBytes>{complete, message(80, 52).U32({4, 0x20CF, 1, 2, 4, 0x2191, 2}).Text("name")}));
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

#ifdef __LP64__
extern "C" void* mmap(void* at, size_t size, int protection, int flags, int descriptor, off_t offset) {
#ifdef MAP_32BIT
  if (qel::g_first_choice_is_full && (flags & MAP_32BIT) != 0) {
    return MAP_FAILED;
  }
#endif
  return reinterpret_cast<void*>(syscall(SYS_mmap, at, size, protection, flags, descriptor, offset));
}
#endif
