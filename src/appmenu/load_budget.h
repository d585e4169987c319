// What one load of the applications menu may use up, so that no set of files stops the agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "files/find_files.h"

namespace qel {

// Processor time of the thread, bytes of texts that are kept, and nodes, which are XML elements. What does not fit into
// the rest is left out. The first time one line in the log says so.
class LoadBudget {
 public:
  // Counted from the beginning of the load.
  struct Amounts {
    std::int64_t nanoseconds;
    std::int64_t bytes;
    std::int64_t nodes;
  };

  // While it is false that the load may go on, nothing more is given out, and nothing is logged about it. Asked on the
  // loading thread, at least every few milliseconds.
  explicit LoadBudget(std::function<bool()> may_go_on = {});
  LoadBudget(const LoadBudget&) = delete;
  LoadBudget& operator=(const LoadBudget&) = delete;

  // Each returns false when there is less left, and takes nothing then. `where` is for the log.
  //
  // The time is measured, not added up: the caller says about how much work comes next, which tells how often to look
  // at the clock.
  bool Spend(std::int64_t nanoseconds, std::string_view where);
  bool TakeBytes(std::size_t amount, std::string_view where);
  bool TakeNodes(std::size_t amount, std::string_view where);

  // Lets a search spend the same; not to be used beyond the budget's life.
  SearchAllowance ForSearch();

  // Says that something was left out, for reasons of the caller's.
  void Refuse(std::string_view where);

  // Where one of so many equal parts of what is left will be used up.
  Amounts Part(std::int64_t parts) const;
  Amounts Half() const { return Part(2); }

  // While it lives, no more is given out than up to a limit: so that a bad file leaves something to the good ones
  // behind it.
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
  std::int64_t unmeasured_ = 0;  // nanoseconds since the clock was read, as the callers guess
  bool is_stopped_ = false;
  bool is_logged_ = false;
};

}  // namespace qel
