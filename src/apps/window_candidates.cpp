#include "apps/window_candidates.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "base/spare_room.h"

namespace qel {
namespace {

// Frames have one or two levels. Ancestors further away are not followed, because programs may nest windows without
// limit.
constexpr std::size_t kMostAncestors = 16;

}  // namespace

void WindowCandidates::Locate(Window candidate, std::span<const Window> ancestors) {
  Forget(candidate);
  Candidate located;
  for (const Window ancestor : ancestors.first(std::min(ancestors.size(), kMostAncestors))) {
    located.ancestors.push_back(ancestor);
    inside_.emplace(ancestor, candidate);
  }
  awaited_.emplace(candidate, std::move(located));
}

void WindowCandidates::Await(Window candidate, unsigned aspects) {
  if (const auto known = awaited_.find(candidate); known != awaited_.end()) {
    known->second.aspects = aspects;
  }
}

void WindowCandidates::Forget(Window candidate) {
  const auto known = awaited_.find(candidate);
  if (known == awaited_.end()) {
    return;
  }
  for (const Window ancestor : known->second.ancestors) {
    const auto [begin, end] = inside_.equal_range(ancestor);
    const auto entry = std::find_if(begin, end, [candidate](const auto& other) { return other.second == candidate; });
    if (entry != end) {
      inside_.erase(entry);
    }
  }
  awaited_.erase(known);
}

bool WindowCandidates::Awaits(Window window, unsigned aspects) const {
  const auto candidate = awaited_.find(window);
  return candidate != awaited_.end() && (candidate->second.aspects & aspects) != 0;
}

std::vector<Window> WindowCandidates::AwaitingIn(Window ancestor, unsigned aspects) const {
  std::vector<Window> awaiting;
  const auto [begin, end] = inside_.equal_range(ancestor);
  std::for_each(begin, end, [&](const auto& entry) {
    if (Awaits(entry.second, aspects)) {
      awaiting.push_back(entry.second);
    }
  });
  return awaiting;
}

bool WindowCandidates::GiveBackSpareRoom() {
  const bool gave_back = qel::GiveBackSpareRoom(awaited_);
  return qel::GiveBackSpareRoom(inside_) || gave_back;
}

}  // namespace qel
