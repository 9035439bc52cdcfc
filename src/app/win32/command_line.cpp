#include "app/win32/command_line.h"

int64_t command_line_number(const std::wstring &command_line)
{
    size_t at = command_line.find_first_not_of(L" \t");
    if (at == std::wstring::npos)
        return 0;
    bool negative = command_line[at] == L'-';
    if (command_line[at] == L'-' || command_line[at] == L'+')
        ++at;
    // Unsigned arithmetic: an over-long number wraps instead of overflowing.
    uint64_t value = 0;
    for (; at < command_line.size() && command_line[at] >= L'0' && command_line[at] <= L'9'; ++at)
        value = value * 10 + static_cast<uint64_t>(command_line[at] - L'0');
    return static_cast<int64_t>(negative ? 0 - value : value);
}
