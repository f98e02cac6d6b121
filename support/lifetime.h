#pragma once

#include <memory>
#include <utility>

namespace vantrel {

// A member of an object that handlers of the loop refer to. A loop calls a
// handler later than what it tells of has happened, and the object may have
// gone meanwhile: a handler that was made here then does nothing.
class Lifetime {
 public:
  Lifetime() : token_(std::make_shared<char>()) {}
  Lifetime(const Lifetime&) = delete;
  Lifetime& operator=(const Lifetime&) = delete;

  // Calls |work| with its own arguments.
  template <typename Work>
  auto MakeHandler(Work work) const {
    return [token = std::weak_ptr<void>(token_),
            work = std::move(work)](const auto&... arguments) {
      if (!token.expired()) work(arguments...);
    };
  }

 private:
  const std::shared_ptr<void> token_;  // nobody else owns it
};

}  // namespace vantrel
