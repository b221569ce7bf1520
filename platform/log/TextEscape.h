#pragma once

#include <cstddef>
#include <string>

namespace dlm {

// A caller's text made safe to print on one line of a log or a terminal: newline and tab become
// \n and \t; other C0 controls, DEL and bytes that are not part of valid UTF-8 become \xHH; the
// C1 controls (U+0080-U+009F) and the bidirectional overrides and isolates (U+202A-U+202E,
// U+2066-U+2069) become \uHHHH. Everything else passes as it is, backslashes too.
std::string escapeText(const char *text, size_t length);
inline std::string escapeText(const std::string &text)
{
    return escapeText(text.data(), text.size());
}

} // namespace dlm
