// Environment variables for one test.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qel::test {

// Sets variables, or removes those without a value. The destructor restores the earlier values.
class ScopedEnvironment {
 public:
  using Variables = std::vector<std::pair<std::string, std::optional<std::string>>>;

  explicit ScopedEnvironment(const Variables& variables) {
    for (const auto& [name, value] : variables) {
      const char* const earlier = std::getenv(name.c_str());
      earlier_.emplace_back(name, earlier == nullptr ? std::nullopt : std::optional<std::string>(earlier));
      Put(name, value);
    }
  }
  ~ScopedEnvironment() {
    for (auto variable = earlier_.rbegin(); variable != earlier_.rend(); ++variable) {
      Put(variable->first, variable->second);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  static void Put(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
      setenv(name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }

  Variables earlier_;
};

}  // namespace qel::test
