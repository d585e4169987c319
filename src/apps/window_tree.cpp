#include "apps/window_tree.h"

#include <memory>
#include <utility>

#include "apps/window_properties.h"
#include "tools_service/x_library.h"

namespace qel {

const WindowTree::Answer& WindowTree::Query(Window window) {
  const auto known = answers_.find(window);
  if (known != answers_.end()) {
    return known->second;
  }
  Answer answer;
  Window* children = nullptr;
  unsigned int count = 0;
  answer.valid = x_api.XQueryTree(session_.display, window, &answer.root, &answer.parent, &children, &count) != 0;
  const std::unique_ptr<Window, XFreeDeleter> owner(children);
  if (children != nullptr) {
    answer.children.assign(children, children + count);
  }
  return answers_.emplace(window, std::move(answer)).first->second;
}

std::vector<Window> WindowTree::AncestorsOf(Window window) {
  std::vector<Window> ancestors;
  // Answers that contradict each other may form a circle. Then there are more ancestors than answers.
  for (Window current = window; ancestors.size() <= answers_.size(); current = ancestors.back()) {
    const Answer& answer = Query(current);
    if (!answer.valid) {
      return {};
    }
    if (answer.parent == answer.root) {
      return ancestors;
    }
    ancestors.push_back(answer.parent);
  }
  return {};
}

Window WindowTree::TopLevelOf(Window window) {
  const std::vector<Window> ancestors = AncestorsOf(window);
  return ancestors.empty() ? window : ancestors.back();
}

std::optional<Atom> WindowTree::GetWindowType(Window window) {
  WindowWalk walk(*this, window);
  while (walk.Next()) {
    const std::optional<Atom> type = ReadWindowType(session_, walk.Current());
    if (type && session_.IsKnownWindowType(*type)) {
      return type;
    }
  }
  return std::nullopt;
}

bool WindowWalk::Next() {
  if (current_ != None) {
    const std::vector<Window>& children = tree_.ChildrenOf(current_);
    pending_.insert(pending_.end(), children.rbegin(), children.rend());
  }
  while (!pending_.empty()) {
    current_ = pending_.back();
    pending_.pop_back();
    if (seen_.insert(current_).second) {
      return true;
    }
  }
  return false;
}

Window FindClientWindow(const Session& session, Window window) {
  WindowTree tree(session);
  WindowWalk walk(tree, window);
  walk.Next();  // skips the window itself
  while (walk.Next()) {
    if (HasWmState(session, walk.Current())) {
      return walk.Current();
    }
  }
  return None;
}

}  // namespace qel
