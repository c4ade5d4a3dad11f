/* SPDX-License-Identifier: Apache-2.0 */
/* Escapes random text for a line of traces: the result is one line of at most PIPE_BUF bytes
   without unprintable bytes, and the text can be restored from it, except for a marked end that is
   cut. */
#include "platform/zel/zel_text.h"
#include "tests/fuzz/fuzz_input.h"

#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

static std::string written(text_line &line)
{
    static const int file = memfd_create("line", MFD_CLOEXEC);
    const bool is_empty = ftruncate(file, 0) == 0 && lseek(file, 0, SEEK_SET) == 0;
    assert(is_empty);
    const bool is_written = line.write_to({.descriptor = file}, false);
    assert(is_written);
    std::string text(PIPE_BUF + 1, '\0');
    text.resize(static_cast<size_t>(pread(file, text.data(), text.size(), 0)));
    return text;
}

/* The inverse of text_line::escape. */
static std::string unescaped(const std::string &text)
{
    static const std::string letters = "\\nrt", meant = "\\\n\r\t";
    std::string bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        const size_t letter = text[at] == '\\' ? letters.find(text[at + 1]) : letters.npos;
        if (text[at] != '\\') {
            bytes += text[at];
        } else if (letter != letters.npos) {
            bytes += meant[letter];
            ++at;
        } else {
            bytes += static_cast<char>(strtoul(text.substr(at + 2, 2).c_str(), nullptr, 16));
            at += 3;
        }
    }
    return bytes;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string input(reinterpret_cast<const char *>(data), size);
    input.resize(input.find('\0') == input.npos ? size : input.find('\0'));
    text_line line;
    line.escape(input.c_str());
    std::string text = written(line);
    assert(text.size() <= PIPE_BUF && text.ends_with('\n'));
    text.pop_back();
    for (const char byte : text)
        assert((static_cast<unsigned char>(byte) >= ' ' && byte != 0x7f));
    const bool is_cut = text.ends_with("...") && unescaped(text) != input;
    if (is_cut)
        text.resize(text.size() - 3);
    assert(is_cut ? input.starts_with(unescaped(text)) : unescaped(text) == input);
    return 0;
}
