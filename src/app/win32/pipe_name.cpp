#include "app/win32/pipe_name.h"

#include <cstdlib>

namespace {

constexpr size_t PIPE_NAME_MAX = 259;

bool letter_or_digit(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

std::string name_part(const char *value, const char *fallback)
{
    std::string part;
    for (const char *p = value ? value : ""; *p; ++p)
        if (letter_or_digit(*p))
            part += *p;
    return part.empty() ? fallback : part;
}

}  // namespace

std::string agent_pipe_name(uint32_t identifier, const char *domain, const char *user)
{
    std::string name = "\\\\.\\pipe\\TarnwellAgentPipe" + std::to_string(identifier) + "_" +
                       name_part(domain, "USERDOMAIN") + "_" + name_part(user, "USERNAME");
    if (name.size() > PIPE_NAME_MAX)
        name.resize(PIPE_NAME_MAX);
    return name;
}

std::string agent_pipe_name_for_user(uint32_t identifier)
{
    return agent_pipe_name(identifier, getenv("USERDOMAIN"), getenv("USERNAME"));
}
