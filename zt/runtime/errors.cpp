#include <zt/runtime/errno_guard.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/options.h>
#include <zt/runtime/status.h>
#include <zt/runtime/text.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>

namespace {

constexpr zt_code_text runtime_codes[] = {
    {ZT_OPTION_E_UNKNOWN, "ZT_OPTION_E_UNKNOWN", "there is no option {sparm0}",
     "Check the spelling; keywords cannot be abbreviated."},
    {ZT_OPTION_E_TWICE, "ZT_OPTION_E_TWICE", "option {sparm0} is given twice", "Give it once."},
    {ZT_OPTION_E_GROUP, "ZT_OPTION_E_GROUP", "option {sparm0} excludes one that was given before it",
     "Keep one of the two."},
    {ZT_OPTION_E_NOVALUE, "ZT_OPTION_E_NOVALUE", "option {sparm0} needs a value", "Write KEYWORD=value."},
    {ZT_OPTION_E_VALUE, "ZT_OPTION_E_VALUE", "unexpected value in {sparm0}",
     "The keyword stands alone, or a blank or comma is missing after a quoted value."},
    {ZT_OPTION_E_QUOTE, "ZT_OPTION_E_QUOTE", "the quote is not closed in {sparm0}",
     "Close the value with the quote that opened it; write the quote twice to mean itself."},
};

struct Table {
    std::atomic<const zt_code_text*> rows;
    std::atomic<std::size_t> count;
};
constinit Table tables[ZT_ERROR_TABLES]{};

const zt_code_text* find(const zt_code_text* rows, std::size_t count, std::uint32_t code)
{
    for (std::size_t i = 0; i < count; ++i) {
        if (rows[i].code == code) return &rows[i];
    }
    return nullptr;
}

/// A text that is cut where its room ends.
class Line {
  public:
    Line(char* buffer, std::size_t size) : begin_(buffer), at_(buffer), end_(buffer + size - 1)
    {
        *at_ = '\0';
    }

    void put(const char* text) { put(text, std::strlen(text)); }
    void put(const char* text, std::size_t length)
    {
        for (; length > 0 && at_ < end_; --length) *at_++ = *text++;
        *at_ = '\0';
    }

    void put_number(long long number)
    {
        char digits[24];
        std::snprintf(digits, sizeof digits, "%lld", number);
        put(digits);
    }

    /// A value of the record. Its control characters would break the line, so they are shown as escapes.
    void put_value(const char* text, std::size_t room)
    {
        char shown[5];
        for (; room > 0 && *text; --room, ++text) {
            const auto byte = static_cast<unsigned char>(*text);
            put(byte < ' ' || byte == 0x7f ? zt_character_to_string(text, 1, shown)
                                           : zt_strncpy(shown, text, 2));
        }
    }

    std::size_t length() const { return static_cast<std::size_t>(at_ - begin_); }

  private:
    char* const begin_;
    char* at_;
    char* const end_;
};

bool is(const char* name, std::size_t length, const char* word)
{
    return std::strlen(word) == length && std::memcmp(name, word, length) == 0;
}

/// The slot in names such as "sparm3", -1 for other names.
int slot(const char* name, std::size_t length, const char* word)
{
    const int index = length == 6 && std::memcmp(name, word, 5) == 0 ? name[5] - '0' : -1;
    return index < ZT_STATUS_PARMS ? index : -1;
}

/// Fills one place-holder; false when the name is none.
bool put_parameter(Line& line, const ubstatus& record, const char* name, std::size_t length)
{
    if (const int text = slot(name, length, "sparm"); text >= 0) {
        line.put_value(record.sparm[text], ZT_STATUS_TEXT);
    } else if (const int number = slot(name, length, "iparm"); number >= 0) {
        line.put_number(record.iparm[number]);
    } else if (is(name, length, "msg")) {
        line.put_value(record.msg, ZT_STATUS_TEXT);
    } else if (is(name, length, "object")) {
        line.put_value(record.object, ZT_STATUS_TEXT);
    } else if (is(name, length, "sys_errno")) {
        line.put_number(record.sys_errno);
    } else {
        return false;
    }
    return true;
}

void put_meaning(Line& line, const char* meaning, const ubstatus& record)
{
    while (const char* open = std::strchr(meaning, '{')) {
        line.put(meaning, static_cast<std::size_t>(open - meaning));
        const char* close = std::strchr(open, '}');
        if (close && put_parameter(line, record, open + 1, static_cast<std::size_t>(close - open - 1))) {
            meaning = close + 1;
        } else {
            line.put("{");
            meaning = open + 1;
        }
    }
    line.put(meaning);
}

/// What a system error is called: EPIPE. Null for a number that the system does not have.
const char* system_name(std::uint32_t code)
{
    const bool in_range = code > ZT_ERROR_SYSTEM && code - ZT_ERROR_SYSTEM <= INT_MAX;
    return in_range ? strerrorname_np(static_cast<int>(code - ZT_ERROR_SYSTEM)) : nullptr;
}

void put_name(Line& line, const char* name, std::uint32_t code)
{
    line.put(name);
    line.put(" (");
    line.put_number(code);
    line.put("): ");
}

void put_code(Line& line, std::uint32_t code, const ubstatus& record)
{
    if (const zt_code_text* text = zt_error_code_text(code)) {
        put_name(line, text->name, code);
        put_meaning(line, text->meaning, record);
    } else if (const char* name = system_name(code)) {
        put_name(line, name, code);
        line.put(strerrordesc_np(static_cast<int>(code - ZT_ERROR_SYSTEM)));
    } else {
        line.put("unknown code ");
        line.put_number(code);
        if (record.msg[0]) put_meaning(line, ": {msg}", record);
    }
}

/// The system's text says nothing new where it is the meaning of the code itself.
bool adds_to_code(const char* system_text, std::uint32_t code)
{
    const char* known =
        system_name(code) ? strerrordesc_np(static_cast<int>(code - ZT_ERROR_SYSTEM)) : nullptr;
    return *system_text && !(known && std::strncmp(system_text, known, ZT_STATUS_TEXT) == 0);
}

void put_success(Line& line, const ubstatus& record)
{
    line.put("success");
    if (!zt_error_code_text(record.subcode)) return;
    line.put("; ");
    put_code(line, record.subcode, record);
}

void put_failure(Line& line, const ubstatus& record)
{
    put_code(line, record.code, record);
    if (adds_to_code(record.sys_msg, record.code)) {
        line.put(": ");
        line.put_value(record.sys_msg, ZT_STATUS_TEXT);
    }
    if (record.where[0]) {
        line.put(" [");
        line.put_value(record.where, ZT_STATUS_TEXT);
        line.put("]");
    }
}

}  // namespace

extern "C" void zt_error_add_codes(const zt_code_text* rows, std::size_t count)
{
    if (!rows) return;
    for (Table& table : tables) {
        const zt_code_text* taken = nullptr;
        if (table.rows.compare_exchange_strong(taken, rows) || taken == rows) {
            // The count makes the rows visible, so whoever finds the table taken by itself may set it too.
            table.count.store(count, std::memory_order_release);
            return;
        }
    }
}

extern "C" const zt_code_text* zt_error_code_text(std::uint32_t code)
{
    if (const auto* own = find(runtime_codes, std::size(runtime_codes), code)) return own;
    for (const Table& table : tables) {
        const std::size_t count = table.count.load(std::memory_order_acquire);
        if (const auto* row = find(table.rows.load(std::memory_order_relaxed), count, code)) return row;
    }
    return nullptr;
}

extern "C" std::uint32_t zt_error_no(int error)
{
    return ZT_ERROR_SYSTEM + (error > 0 ? static_cast<std::uint32_t>(error) : 0);
}

extern "C" char* zt_error_msg_r(int error, char* buffer, std::size_t size)
{
    if (const char* known = strerrordesc_np(error)) return zt_strncpy(buffer, known, size);
    const zt::ErrnoGuard keep;
    char unknown[32];
    std::snprintf(unknown, sizeof unknown, "Unknown error %d", error);
    return zt_strncpy(buffer, unknown, size);
}

extern "C" std::size_t zt_error_describe(const ubstatus* record, char* buffer, std::size_t size)
{
    if (!buffer || size == 0) return 0;
    const zt::ErrnoGuard keep;
    Line line(buffer, size);
    if (!record) return 0;

    record->code == 0 ? put_success(line, *record) : put_failure(line, *record);
    return line.length();
}
