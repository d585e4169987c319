// One function made of several lambdas, for std::visit(): the compiler sees to it that no alternative is forgotten.
#pragma once

namespace qel {

template <typename... Handlers>
struct Overloaded : Handlers... {
  using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

}  // namespace qel
