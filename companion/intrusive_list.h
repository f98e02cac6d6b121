#pragma once

#include <assert.h>

namespace vantrel {

// A list of items that have their place in it themselves: it allocates nothing,
// and an item leaves it without looking for itself. Item derives from Place,
// and is in one such list at most.
template <typename Item>
class IntrusiveList {
 public:
  class Place {
   public:
    Place() = default;
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() { Leave(); }

    bool IsListed() const { return next_ != this; }
    // No effect where it is in no list.
    void Leave() {
      previous_->next_ = next_;
      next_->previous_ = previous_;
      previous_ = next_ = this;
    }

   private:
    friend class IntrusiveList;
    Place* previous_ = this;
    Place* next_ = this;
  };

  IntrusiveList() = default;
  ~IntrusiveList() { assert(IsEmpty()); }

  bool IsEmpty() const { return !ends_.IsListed(); }
  // There is one.
  const Item& GetFirst() const {
    return static_cast<const Item&>(*ends_.next_);
  }
  void Append(Item* item) {
    Place* const place = item;
    assert(!place->IsListed());
    place->previous_ = ends_.previous_;
    place->next_ = &ends_;
    ends_.previous_->next_ = place;
    ends_.previous_ = place;
  }
  // Calls |look|(Item&) for each, which stays in the list.
  template <typename Look>
  void Each(const Look& look) {
    for (Place* place = ends_.next_; place != &ends_; place = place->next_) {
      look(static_cast<Item&>(*place));
    }
  }

 private:
  Place ends_;
};

}  // namespace vantrel
