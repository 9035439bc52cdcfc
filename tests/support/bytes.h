// Small helpers for writing byte strings in tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "keys/buffer.h"

using Bytes = std::vector<uint8_t>;

inline Bytes hex_bytes(const std::string &hex)
{
    Bytes out;
    std::string digits;
    for (char c : hex)
        if (isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

inline Bytes buffer_bytes(const Buffer &b) { return Bytes(buffer_ptr(&b), buffer_ptr(&b) + buffer_len(&b)); }

// A framed request: 4-byte length, then the body.
inline Bytes frame(const Bytes &body)
{
    uint32_t n = static_cast<uint32_t>(body.size());
    Bytes out(4 + body.size());
    out[0] = static_cast<uint8_t>(n >> 24);
    out[1] = static_cast<uint8_t>(n >> 16);
    out[2] = static_cast<uint8_t>(n >> 8);
    out[3] = static_cast<uint8_t>(n);
    std::copy(body.begin(), body.end(), out.begin() + 4);
    return out;
}
