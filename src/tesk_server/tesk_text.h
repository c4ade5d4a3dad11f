/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_text - bounded copies of texts into fields of fixed size. Any thread. */
#pragma once

#include <cstddef>
#include <cstring>

/* Fills the field with the first `length` bytes of the text, or as many as leave room for the
   terminator. The rest of the field is zeroed: it is sent whole, and must not disclose what the
   memory held before. */
template <size_t size>
static inline void tesk_fill_text(char (&field)[size], const char *text, size_t length)
{
    if (length > size - 1)
        length = size - 1;
    memcpy(field, text, length);
    memset(field + length, 0, size - length);
}

/* Fills the field with a terminated text. */
template <size_t size>
static inline void tesk_copy_text(char (&field)[size], const char *text)
{
    tesk_fill_text(field, text, strlen(text));
}

/* Fills the field with a text that may lack a terminator within its own field. */
template <size_t size, size_t source_size>
static inline void tesk_copy_bounded(char (&field)[size], const char (&source)[source_size])
{
    tesk_fill_text(field, source, strnlen(source, source_size));
}
