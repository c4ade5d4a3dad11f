/* SPDX-License-Identifier: Apache-2.0 */
/* server_words - signals of a server that a test plays on the fake mailbox, as words in host order;
   the first word is the number. */
#pragma once

#include "testkit/fake_platform/fake_mailbox.h"

#include <cstdint>
#include <cstring>
#include <unistd.h>
#include <vector>

using words_of = std::vector<uint32_t>;

/* The reference of the client under test. */
static const uint32_t own_ref = static_cast<uint32_t>(getpid());

/* Swaps the words that are in network order in the server's own signals. */
inline void swap_words(words_of &words)
{
    for (size_t i = 1; i < words.size() && words[0] >= 0x1000; i++)
        words[i] = __builtin_bswap32(words[i]);
}

/* Delivers `size` bytes, at least those of a number: the words, cut, or continued by the text and
   by zeros. */
inline void deliver_words(uint32_t sender, words_of words, size_t size, const char *text = "")
{
    swap_words(words);
    std::vector<char> bytes(words.size() * sizeof(uint32_t));
    std::memcpy(bytes.data(), words.data(), bytes.size());
    bytes.insert(bytes.end(), text, text + std::strlen(text));
    bytes.resize(size);
    fake_mailbox::deliver(sender, words[0], bytes.data() + sizeof(uint32_t),
                          size - sizeof(uint32_t));
}

inline words_of received_words(const mbx_signal *signal)
{
    words_of words(mbx_size(signal) / sizeof(uint32_t));
    std::memcpy(words.data(), signal, words.size() * sizeof(uint32_t));
    swap_words(words);
    return words;
}
