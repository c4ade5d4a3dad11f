/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_list - lists whose links are members of the records: `next`, and `prev_link`, which leads to
   the place that points at the record, be it the head of the list or the `next` of the record
   before. With that place at hand a record leaves its list without a walk, and nobody has to know
   whether it stood first. Whoever owns a list guards it. */
#pragma once

/* Puts the record at the place `link`, and what stood there behind it. */
template <typename record_type>
static inline void tesk_list_insert(record_type **link, record_type *record)
{
    record->next = *link;
    record->prev_link = link;
    if (record->next != nullptr)
        record->next->prev_link = &record->next;
    *link = record;
}

/* The record's own links keep what they were. */
template <typename record_type>
static inline void tesk_list_remove(record_type *record)
{
    *record->prev_link = record->next;
    if (record->next != nullptr)
        record->next->prev_link = record->prev_link;
}
