// Sets and clears environment variables, which stand for policy settings in
// the tests.
#pragma once

#include <cstdlib>

inline void set_environment(const char *name, const char *value)
{
#if defined(_WIN32)
    _putenv_s(name, value);
#else
    setenv(name, value, 1);
#endif
}

inline void unset_environment(const char *name)
{
#if defined(_WIN32)
    _putenv_s(name, "");  // an empty value removes the variable
#else
    unsetenv(name);
#endif
}
