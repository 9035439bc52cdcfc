// What every fuzz target does around its one input: quiet logging and the
// certificate layer's part in the key code installed, a bound on the input's
// size, and the fatal path (over-long strings and numbers in files) counted
// as an allowed ending.
#pragma once

#include <cstddef>
#include <cstdint>

#include "log/log.h"
#include "pki/cert_key_layer.h"

template <typename Body>
int fuzz_one_input(const uint8_t *data, size_t size, Body body)
{
    static bool quiet = (log_init("fuzz", 0, 1), cert_key_layer_install(), true);
    (void)quiet;
    if (size > 0x50000)
        return 0;
    try {
        body(data, size);
    } catch (const FatalError &) {
    }
    return 0;
}
