#include "companion/socket_pool.h"

#include <algorithm>

namespace vantrel {
namespace {

// With fewer for each link, and for its own socket, links are not worth having.
constexpr size_t kMinDescriptorsPerLink = 16;
// What a link may always have, however much the others take, unless there are
// too few descriptors for that.
constexpr size_t kMostForSure = 64;

}  // namespace

SocketPool::SocketPool(size_t max_descriptors, size_t own, size_t wanted_links)
    : max_links_(std::clamp<size_t>(max_descriptors / kMinDescriptorsPerLink, 1,
                                    wanted_links)) {
  const size_t taken = own + max_links_;
  const size_t left = max_descriptors - std::min(taken, max_descriptors);
  // At most half of them is set aside.
  for_sure_ = std::clamp<size_t>(left / (4 * max_links_), 1, kMostForSure);
  shared_ = left - std::min(2 * for_sure_ * max_links_, left);
}

size_t SocketPool::GetShare() const {
  return std::max(for_sure_, shared_ - std::min(used_, shared_));
}

}  // namespace vantrel
