// The agent's command line: one decimal number, the launching client's
// window handle.
#pragma once

#include <cstdint>
#include <string>

// The whole command line as a signed 64-bit decimal number: optional
// blanks and sign, then digits; 0 when it does not start with digits.
int64_t command_line_number(const std::wstring &command_line);
