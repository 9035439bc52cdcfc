#include "app/tagent/tagent_args.h"

#include <cstdio>

#include "app/tagent/tagent_commands.h"

std::optional<std::string> tagent_option(const std::vector<std::string> &args, const char *name)
{
    for (size_t i = 1; i + 1 < args.size(); ++i)
        if (args[i] == name)
            return args[i + 1];
    return std::nullopt;
}

bool tagent_flag(const std::vector<std::string> &args, const char *name)
{
    for (size_t i = 1; i < args.size(); ++i)
        if (args[i] == name)
            return true;
    return false;
}

int tagent_usage_error(const std::string &what)
{
    fprintf(stderr, "tagent: %s (see tagent --help)\n", what.c_str());
    return TAGENT_UNREACHABLE;
}

int tagent_unreachable(const std::string &socket)
{
    fprintf(stderr, "tagent: no agent is reachable at %s\n", socket.c_str());
    return TAGENT_UNREACHABLE;
}
