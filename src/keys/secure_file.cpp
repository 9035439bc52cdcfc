#include "keys/secure_file.h"

#include <cstdint>
#include <cstdio>

SecureBytes read_whole_file(const std::string &path, bool *ok)
{
    SecureBytes data;
    *ok = false;
    if (path.empty())
        return data;
    FILE *file = fopen(path.c_str(), "rb");
    if (!file)
        return data;
    uint8_t chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, file)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    *ok = !ferror(file);
    fclose(file);
    wipe_memory(chunk, sizeof chunk);
    return data;
}
