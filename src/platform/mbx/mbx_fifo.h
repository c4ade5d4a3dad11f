/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_fifo - first in, first out, linked through the items' own `next`, so that a place in it needs
   no memory. With the lock of whoever has it. */
#pragma once

#include <cstddef>

template <typename item>
class fifo
{
  public:
    bool is_empty() const
    {
        return first_ == nullptr;
    }
    size_t size() const
    {
        return size_;
    }
    void push_back(item &added)
    {
        added.next = nullptr;
        (last_ ? last_->next : first_) = &added;
        last_ = &added;
        size_++;
    }
    void push_front(item &added)
    {
        added.next = first_;
        if (!last_)
            last_ = &added;
        first_ = &added;
        size_++;
    }
    /* Null when it is empty. */
    item *pop_front()
    {
        return first_ ? take_after(nullptr) : nullptr;
    }
    /* Takes the first one out that is wanted; null if there is none. */
    template <typename question>
    item *take_if(question &&is_wanted)
    {
        item *before = nullptr;
        for (item *one = first_; one; before = one, one = one->next)
            if (is_wanted(*one))
                return take_after(before);
        return nullptr;
    }

  private:
    item *take_after(item *before)
    {
        item *&link = before ? before->next : first_;
        item *taken = link;
        link = taken->next;
        if (last_ == taken)
            last_ = before;
        size_--;
        taken->next = nullptr;
        return taken;
    }

    item *first_ = nullptr;
    item *last_ = nullptr;
    size_t size_ = 0;
};
