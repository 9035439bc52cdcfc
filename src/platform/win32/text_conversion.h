// UTF-8 and UTF-16 conversions: the core passes text and paths as UTF-8,
// Windows takes UTF-16.
#pragma once

#include <string>

std::wstring utf8_to_wide(const std::string &text);
std::string wide_to_utf8(const wchar_t *text, size_t length);
