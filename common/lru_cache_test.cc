#include "common/lru_cache.h"

#include <ctype.h>
#include <gtest/gtest.h>

#include <memory>
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

TEST(LruCacheTest, EvictionDropsOnlyTheCachesReference) {
  LruCache<int, std::shared_ptr<int>> cache(1);
  auto shared = std::make_shared<int>(7);
  const std::weak_ptr<int> watch = shared;
  cache.Insert(1, shared);
  cache.Insert(2, nullptr);
  EXPECT_EQ(1, watch.use_count());
  shared.reset();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace vantrel
