#include "programs/open_file_limit.h"

#include <sys/resource.h>

namespace vantrel {

size_t RaiseOpenFileLimit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before;
}

}  // namespace vantrel
