#include "common/lru_cache.h"

#include <ctype.h>
#include <gtest/gtest.h>

#include <string>

namespace vantrel {
namespace {

TEST(LruCacheTest, ForgetsTheLeastRecentlyInserted) {
  const struct {
    const char* name;
    std::string steps;  // upper case inserts, lower case looks up
    std::string left;
  } cases[] = {
      {"the oldest goes", "ABC", "BC"},
      {"an insert refreshes", "ABAC", "AC"},
      {"a known key evicts nothing, even when full", "ABBA", "AB"},
      {"a lookup does not refresh", "ABaC", "BC"},
      {"a forgotten key comes back", "ABCA", "CA"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LruCache<char, size_t> cache(2);
    for (size_t i = 0; i < c.steps.size(); ++i) {
      const auto key = static_cast<char>(toupper(c.steps[i]));
      if (key == c.steps[i]) cache.Insert(key, i);
      EXPECT_NE(nullptr, cache.Find(key));
    }
    EXPECT_EQ(c.left.size(), cache.Size());
    for (const char key : c.left) {
      ASSERT_NE(nullptr, cache.Find(key)) << key;
      EXPECT_EQ(c.steps.rfind(key), *cache.Find(key)) << "latest value";
    }
  }
}

}  // namespace
}  // namespace vantrel
