// Limits on what one load of the menu may use up: files, names and texts that somebody chose to stop the agent.
#pragma once

#include <cstddef>
#include <string_view>

namespace qel {

// An amount of something. What does not fit into the rest of it is to be left out; a line in the log says so, once.
class Allowance {
 public:
  // `what` is logged: "Warning: The applications menu has WHAT, left out at '…'". It must live as long as the object.
  Allowance(std::size_t amount, const char* what) : left_(amount), what_(what) {}

  std::size_t left() const { return left_; }
  void Refill(std::size_t amount) { left_ = amount; }

  // Takes so much. False, and nothing taken, when there is less left. `where` is for the log.
  bool Take(std::size_t amount, std::string_view where) {
    if (amount > left_) {
      Refuse(where);
      return false;
    }
    left_ -= amount;
    return true;
  }

  // Says that something was left out, for reasons of the caller's.
  void Refuse(std::string_view where);

 private:
  std::size_t left_;
  const char* what_;
  bool logged_ = false;
};

}  // namespace qel
