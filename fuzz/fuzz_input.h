// What every fuzz target does around its one input: quiet logging, a bound
// on the input's size, and the fatal path (over-long strings and numbers in
// files) counted as an allowed ending.
#pragma once

#include <cstddef>
#include <cstdint>

#include "log/log.h"

template <typename Body>
int fuzz_one_input(const uint8_t *data, size_t size, Body body)
{
    static bool quiet = (log_init("fuzz", 0, 1), true);
    (void)quiet;
    if (size > 0x50000)
        return 0;
    try {
        body(data, size);
    } catch (const FatalError &) {
    }
    return 0;
}
