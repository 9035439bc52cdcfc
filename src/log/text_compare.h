// ASCII case-insensitive comparison for algorithm names, setting keys and
// other protocol words; the same on every platform and in every locale.
#pragma once

#include <string_view>

constexpr char ascii_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

constexpr bool equals_ignore_case(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (ascii_lower(a[i]) != ascii_lower(b[i]))
            return false;
    return true;
}

constexpr bool starts_with_ignore_case(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && equals_ignore_case(text.substr(0, prefix.size()), prefix);
}
