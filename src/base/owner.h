// Owners for what C libraries hand out.
#pragma once

#include <memory>

namespace qel {

// Calls `release`, a function or an object that is called like one, with what is owned.
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
