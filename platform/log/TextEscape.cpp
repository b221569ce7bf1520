#include "TextEscape.h"

#include <cstdint>
#include <cstdio>

namespace dlm {

namespace {

// The length of the valid UTF-8 sequence at p (at most n bytes) and its code point; 0 if none.
size_t decode(const unsigned char *p, size_t n, uint32_t *cp)
{
    const size_t len = p[0] >= 0xc2 && p[0] <= 0xdf ? 2
        : p[0] >= 0xe0 && p[0] <= 0xef              ? 3
        : p[0] >= 0xf0 && p[0] <= 0xf4              ? 4
                                                    : 0;
    if (len == 0 || len > n)
        return 0;
    *cp = p[0] & (0x7f >> len);
    for (size_t k = 1; k < len; ++k) {
        if ((p[k] & 0xc0) != 0x80)
            return 0;
        *cp = *cp << 6 | (p[k] & 0x3f);
    }
    const bool overlong = (len == 3 && *cp < 0x800) || (len == 4 && *cp < 0x10000);
    const bool surrogate = *cp >= 0xd800 && *cp <= 0xdfff;
    return overlong || surrogate || *cp > 0x10ffff ? 0 : len;
}

} // namespace

std::string escapeText(const char *text, size_t length)
{
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    std::string out;
    out.reserve(length);
    char escaped[8];
    size_t plain = 0; // the start of the run of bytes that pass as they are
    for (size_t i = 0; i < length;) {
        const unsigned char c = p[i];
        uint32_t cp = c;
        const size_t len = c < 0x80 ? 1 : decode(p + i, length - i, &cp);
        const bool control = len == 0 || c < 0x20 || c == 0x7f;
        const bool hidden = (cp >= 0x80 && cp <= 0x9f) || (cp >= 0x202a && cp <= 0x202e)
            || (cp >= 0x2066 && cp <= 0x2069);
        if (control || hidden) {
            out.append(text + plain, i - plain);
            if (c == '\n' || c == '\t')
                out += c == '\n' ? "\\n" : "\\t";
            else if (control)
                out.append(escaped, size_t(std::snprintf(escaped, sizeof escaped, "\\x%02x", c)));
            else
                out.append(escaped,
                    size_t(std::snprintf(escaped, sizeof escaped, "\\u%04x", unsigned(cp))));
            plain = i + (len == 0 ? 1 : len);
        }
        i += len == 0 ? 1 : len;
    }
    out.append(text + plain, length - plain);
    return out;
}

} // namespace dlm
