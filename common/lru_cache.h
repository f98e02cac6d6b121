#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include <list>
#include <unordered_map>
#include <utility>

namespace vantrel {

// A bounded map that forgets its least recently inserted entry when a new key
// arrives and it is full. Only Insert() refreshes an entry, so users who insert
// on a miss alone get first-in, first-out.
template <typename Key, typename Value>
class LruCache {
 public:
  explicit LruCache(uint32_t capacity) : capacity_(capacity) {}
  LruCache(const LruCache&) = delete;
  LruCache& operator=(const LruCache&) = delete;

  // Puts |value| under |key| as the most recent entry. An existing key takes
  // the new value and evicts nothing; a new one evicts the oldest entry first
  // when the cache is full.
  void Insert(const Key& key, const Value& value) {
    const auto found = index_.find(key);
    if (found != index_.end()) {
      entries_.splice(entries_.begin(), entries_, found->second);
      found->second->second = value;
      return;
    }
    if (index_.size() >= capacity_) Evict();
    entries_.emplace_front(key, value);
    index_.emplace(key, entries_.begin());
  }

  // The value under |key|, to be read or overwritten in place, or null. Does
  // not change the order. Valid until that entry is evicted.
  Value* Find(const Key& key) {
    const auto found = index_.find(key);
    return found == index_.end() ? nullptr : &found->second->second;
  }

  size_t Size() const { return index_.size(); }

 private:
  void Evict() {
    if (entries_.empty()) return;
    index_.erase(entries_.back().first);
    entries_.pop_back();
    assert(index_.size() == entries_.size());
  }

  using Entries = std::list<std::pair<const Key, Value>>;

  const uint32_t capacity_;
  std::unordered_map<Key, typename Entries::iterator> index_;
  Entries entries_;  // most recently inserted first
};

}  // namespace vantrel
