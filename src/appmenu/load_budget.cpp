#include "appmenu/load_budget.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "log/log.h"

namespace qel {
namespace {

// A desktop with 600 applications uses 5 ms, 300 KB and 4,000 nodes.
constexpr LoadBudget::Amounts kAll{.nanoseconds = 1'500'000'000, .bytes = std::int64_t{128} << 20, .nodes = 400'000};
constexpr std::int64_t kBetweenMeasurements = 100'000;  // nanoseconds

std::int64_t ThreadTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

LoadBudget::LoadBudget(std::function<bool()> may_go_on)
    : may_go_on_(std::move(may_go_on)), start_(ThreadTime()), limit_(kAll) {}

bool LoadBudget::Spend(std::int64_t nanoseconds, std::string_view where) {
  unmeasured_ += nanoseconds;
  if (unmeasured_ >= kBetweenMeasurements) {
    unmeasured_ = 0;
    used_.nanoseconds = ThreadTime() - start_;
    is_stopped_ = is_stopped_ || (may_go_on_ && !may_go_on_());
  }
  if (is_stopped_) {
    return false;
  }
  if (used_.nanoseconds >= limit_.nanoseconds) {
    Refuse(where);
    return false;
  }
  return true;
}

bool LoadBudget::TakeBytes(std::size_t amount, std::string_view where) {
  if (std::cmp_greater(amount, limit_.bytes - used_.bytes)) {
    Refuse(where);
    return false;
  }
  used_.bytes += static_cast<std::int64_t>(amount);
  return !is_stopped_;
}

bool LoadBudget::TakeNodes(std::size_t amount, std::string_view where) {
  if (std::cmp_greater(amount, limit_.nodes - used_.nodes)) {
    Refuse(where);
    return false;
  }
  used_.nodes += static_cast<std::int64_t>(amount);
  return !is_stopped_;
}

SearchAllowance LoadBudget::ForSearch() {
  return [this](std::int64_t nanoseconds, std::size_t bytes, const std::string& path) {
    return Spend(nanoseconds, path) && TakeBytes(bytes, path);
  };
}

void LoadBudget::Refuse(std::string_view where) {
  if (!is_logged_) {
    LogWarning(kModuleAgent, "Warning: The applications menu is too large, something is left out at '%.*s'",
               static_cast<int>(std::min<std::size_t>(where.size(), 256)), where.data());
    is_logged_ = true;
  }
}

LoadBudget::Amounts LoadBudget::Part(std::int64_t parts) const {
  const auto part = [parts](std::int64_t used, std::int64_t limit) {
    return used + std::max<std::int64_t>(limit - used, 0) / parts;
  };
  return {.nanoseconds = part(ThreadTime() - start_, limit_.nanoseconds),
          .bytes = part(used_.bytes, limit_.bytes),
          .nodes = part(used_.nodes, limit_.nodes)};
}

LoadBudget::Share::Share(LoadBudget& budget, const Amounts& limit) : budget_(budget), outer_limit_(budget.limit_) {
  budget.limit_ = {.nanoseconds = std::min(limit.nanoseconds, outer_limit_.nanoseconds),
                   .bytes = std::min(limit.bytes, outer_limit_.bytes),
                   .nodes = std::min(limit.nodes, outer_limit_.nodes)};
}

}  // namespace qel
