#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <unordered_map>

#include "companion/application.h"

namespace vantrel {

// The applications of one link's device.
class Applications {
 public:
  // A device may invent UIDs without end. Above so many the one that was named
  // longest ago is forgotten, of those without a stream.
  static constexpr size_t kMaxKnown = 1024;

  Applications() = default;
  Applications(const Applications&) = delete;
  Applications& operator=(const Applications&) = delete;

  // The application of |uid|, which is made when it is not known. Good while it
  // has a stream; without one, until the next call.
  Application& Get(uint32_t uid);
  // The one that stands for all flows whose owner the wire does not name, and
  // for those whose owner the device has not found. It is never forgotten.
  Application& GetUnknown() { return unknown_; }
  const Application& GetUnknown() const { return unknown_; }
  // The sums of those that were forgotten.
  const application_counts_t& GetForgotten() const { return forgotten_; }

  // Calls |look|(const Application&) for each, the unknown one first.
  template <typename Look>
  void Each(const Look& look) const {
    look(unknown_);
    for (const Application& application : known_) look(application);
  }

 private:
  using Known = std::list<Application>;

  void MakeRoom();

  Application unknown_{std::nullopt};
  Known known_;  // named longest ago first
  std::unordered_map<uint32_t, Known::iterator> by_uid_;
  application_counts_t forgotten_;
};

}  // namespace vantrel
