// Combines several lambdas into one function object for std::visit(). The compiler reports an alternative that no
// lambda handles.
#pragma once

namespace qel {

template <typename... Handlers>
struct Overloaded : Handlers... {
  using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

}  // namespace qel
