// Lets the compiler check the arguments of printf-style log functions where it
// can. mingw-w64 names the format flavour its stdio really implements.
#pragma once

#include <cstdio>

#if defined(__MINGW32__)
#define PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(__MINGW_PRINTF_FORMAT, fmt_index, first_arg)))
#elif defined(__GNUC__) || defined(__clang__)
#define PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define PRINTF_FORMAT(fmt_index, first_arg)
#endif
