#include "support/open_file_limit.h"

#include <stdint.h>
#include <sys/resource.h>

#include <algorithm>

namespace vantrel {

size_t RaiseOpenFileLimit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  const rlim_t now =
      setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before;
  return static_cast<size_t>(std::min<rlim_t>(now, SIZE_MAX));
}

}  // namespace vantrel
