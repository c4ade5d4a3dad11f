/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_table - records by the ids of connections. Guarded by the table's owner.

   A send to one of a thousand receivers finds everything of its connection cold, so the way there
   is one look at a table of pointers: with std::unordered_map such a send took 1.1 times as long,
   with 100 receivers as long as with this. The place is the id's low bits: since we give the ids,
   we give none whose place is taken, and nothing ever collides. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/* `record` has a member `id`. */
template <typename record>
class id_table
{
  public:
    size_t size() const
    {
        return size_;
    }
    bool is_empty() const
    {
        return size_ == 0;
    }
    /* The record of that id, or null. */
    record *find(uint32_t id) const
    {
        record *found = at_place_of(id);
        return found && found->id == id ? found : nullptr;
    }
    /* A record for which the question is answered with yes, or null. */
    template <typename question>
    record *find_if(question &&is_wanted) const
    {
        for (const std::unique_ptr<record> &one : places_)
            if (one && is_wanted(*one))
                return one.get();
        return nullptr;
    }
    /* The record at the id's place: its own, another one, or null. */
    record *at_place_of(uint32_t id) const
    {
        return places_[place_of(id)].get();
    }
    /* Whether a record with this id can be added. */
    bool has_place_for(uint32_t id) const
    {
        return !at_place_of(id);
    }
    /* Makes room for one more record, at half use at most, and the record. May throw
       std::bad_alloc, and change which ids have a place. */
    void make_room()
    {
        if (2 * (size_ + 1) > places_.size())
            grow();
        if (!spare_)
            spare_ = std::make_unique<record>();
    }
    /* The record that make_room has made, from now on with that id, for which there is a place. */
    record &add(uint32_t id)
    {
        spare_->id = id;
        size_++;
        return *(places_[place_of(id)] = std::move(spare_));
    }
    void remove(uint32_t id)
    {
        places_[place_of(id)].reset();
        size_--;
    }
    void clear()
    {
        places_ = places(least);
        size_ = 0;
    }
    /* Calls the function with each; it may remove the one that it is called with. */
    template <typename function>
    void for_each(function &&call)
    {
        for (std::unique_ptr<record> &one : places_)
            if (one)
                call(*one);
    }

  private:
    using places = std::vector<std::unique_ptr<record>>;
    static constexpr size_t least = 4;

    size_t place_of(uint32_t id) const
    {
        return id & (places_.size() - 1);
    }
    /* Ids that differ in their low bits differ in more of them. */
    void grow()
    {
        places more(2 * places_.size());
        more.swap(places_);
        for (std::unique_ptr<record> &one : more)
            if (one)
                places_[place_of(one->id)] = std::move(one);
    }

    std::unique_ptr<record> spare_;
    size_t size_ = 0;
    places places_ = places(least); /* a power of two of them */
};
