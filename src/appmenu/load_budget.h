// Limits the resources of one load of the applications menu, so that no set of files can block the agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "files/find_files.h"

namespace qel {

// The budget has processor time of the thread, bytes of stored text, and nodes (XML elements). Content that does not
// fit into the rest of the budget is left out; a warning is logged the first time. For one thread.
class LoadBudget {
 public:
  // Amounts used since the beginning of the load.
  struct Amounts {
    std::int64_t nanoseconds;
    std::int64_t bytes;
    std::int64_t nodes;
  };

  // `may_go_on` is called on the loading thread, at least every few milliseconds. After it has returned false, all
  // requests to the budget fail. An empty function always allows the load.
  explicit LoadBudget(std::function<bool()> may_go_on = {});
  LoadBudget(const LoadBudget&) = delete;
  LoadBudget& operator=(const LoadBudget&) = delete;

  // Each returns false when there is not enough left, and uses nothing then; also after the load was stopped. `where`
  // is for the log.
  //
  // The used time is measured, not summed up from `nanoseconds`: that is only the caller's estimate of the next work,
  // and decides when the clock is read again.
  bool Spend(std::int64_t nanoseconds, std::string_view where);
  bool TakeBytes(std::size_t amount, std::string_view where);
  bool TakeNodes(std::size_t amount, std::string_view where);

  // The same for FindFiles(). The budget must outlive the result.
  SearchAllowance ForSearch();

  // Logs the warning that something was left out, when the caller has a reason of its own for that.
  void Refuse(std::string_view where);

  // The limit for a share of 1/parts of what is left: the used amounts plus that share.
  Amounts Part(std::int64_t parts) const;
  Amounts Half() const { return Part(2); }

  // As long as an object of this class exists, the budget ends at its limit. So a bad file leaves something for the
  // good files after it.
  class Share {
   public:
    explicit Share(LoadBudget& budget) : Share(budget, budget.Half()) {}
    Share(LoadBudget& budget, const Amounts& limit);
    ~Share() { budget_.limit_ = outer_limit_; }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

   private:
    LoadBudget& budget_;
    const Amounts outer_limit_;
  };

 private:
  const std::function<bool()> may_go_on_;
  const std::int64_t start_;
  Amounts used_{};
  Amounts limit_;
  std::int64_t unmeasured_ = 0;  // estimated nanoseconds since the clock was read
  bool is_stopped_ = false;
  bool is_logged_ = false;
};

}  // namespace qel
