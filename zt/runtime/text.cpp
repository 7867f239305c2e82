#include <zt/runtime/text.h>

#include <cstring>

namespace {

constexpr char dots[] = "...";
constexpr std::size_t dot_count = sizeof dots - 1;

unsigned char lower(unsigned char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

/// The letter that stands for a byte after a backslash, 0 when it has none.
char escape_letter(char c)
{
    switch (c) {
        case '\n':
            return 'n';
        case '\t':
            return 't';
        case '\r':
            return 'r';
        case '\\':
            return '\\';
        default:
            return '\0';
    }
}

char* render(char c, char* out)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    if (const char letter = escape_letter(c)) {
        *out++ = '\\', *out++ = letter;
    } else if (byte < ' ' || byte > '~') {
        *out++ = '\\', *out++ = 'x', *out++ = hex[byte >> 4], *out++ = hex[byte & 15];
    } else {
        *out++ = c;
    }
    return out;
}

}  // namespace

extern "C" char* zt_strncpy(char* dst, const char* src, std::size_t size)
{
    if (!dst || size == 0) return dst;
    const std::size_t length = src ? strnlen(src, size - 1) : 0;
    if (length > 0) std::memmove(dst, src, length);
    dst[length] = '\0';
    return dst;
}

extern "C" char* zt_trim_filename(const char* path, std::size_t width, char* dst)
{
    const std::size_t length = path ? std::strlen(path) : 0;
    if (length < width || width == 0) return zt_strncpy(dst, path, width);

    const bool dotted = width > dot_count + 1;
    const std::size_t room = width - 1 - (dotted ? dot_count : 0);
    const char* tail = path + (length - room);
    // A slash further back would throw away most of what there is room for.
    if (const void* slash = dotted ? std::memchr(tail, '/', (room + 1) / 2) : nullptr) {
        tail = static_cast<const char*>(slash);
    }
    if (!dst) return dst;
    std::memmove(dst + (dotted ? dot_count : 0), tail, static_cast<std::size_t>(path + length - tail) + 1);
    if (dotted) std::memcpy(dst, dots, dot_count);
    return dst;
}

extern "C" int zt_stricmp(const char* text, const char* word)
{
    if (!text || !word) return (text != nullptr) - (word != nullptr);
    while (*text && lower(static_cast<unsigned char>(*text)) == lower(static_cast<unsigned char>(*word))) {
        ++text, ++word;
    }
    return lower(static_cast<unsigned char>(*text)) - lower(static_cast<unsigned char>(*word));
}

extern "C" char* zt_character_to_string(const char* text, std::size_t length, char* dst)
{
    if (!dst) return dst;
    char* out = dst;
    for (std::size_t i = 0; text && i < length; ++i) out = render(text[i], out);
    *out = '\0';
    return dst;
}
