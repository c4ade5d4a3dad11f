/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_list - lists whose links are members of the records: `next`, and `prev_link`, the address of
   the pointer to the record (the list head, or `next` of the record before). A record is therefore
   removed without a walk and without a special case for the first one. The list's owner provides
   the locking. */
#pragma once

/* Inserts the record at the place `link`; the record that was there becomes its successor. */
template <typename record_type>
static inline void tesk_list_insert(record_type **link, record_type *record)
{
    record->next = *link;
    record->prev_link = link;
    if (record->next != nullptr)
        record->next->prev_link = &record->next;
    *link = record;
}

/* The links of the removed record keep their values. */
template <typename record_type>
static inline void tesk_list_remove(record_type *record)
{
    *record->prev_link = record->next;
    if (record->next != nullptr)
        record->next->prev_link = record->prev_link;
}
