// Owning pointers for objects of C libraries.
#pragma once

#include <memory>

namespace qel {

// A deleter that calls `release`, a function or a function object, with the owned pointer.
template <auto release>
struct ReleaseWith {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

// Owner<FILE, std::fclose> closes its file. Like every std::unique_ptr it releases nothing when it is null.
template <typename Object, auto release>
using Owner = std::unique_ptr<Object, ReleaseWith<release>>;

}  // namespace qel
