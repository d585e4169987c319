#include "appmenu/allowance.h"

#include <algorithm>

#include "log/log.h"

namespace qel {

void Allowance::Refuse(std::string_view where) {
  if (!logged_) {
    LogWarning(kModuleAgent, "Warning: The applications menu has %s, left out at '%.*s'", what_,
               static_cast<int>(std::min<std::size_t>(where.size(), 256)), where.data());
    logged_ = true;
  }
}

}  // namespace qel
