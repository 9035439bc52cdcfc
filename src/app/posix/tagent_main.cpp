#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/posix/agent_client.h"
#include "app/tagent/tagent_commands.h"

int main(int argc, char **argv)
{
    std::string socket_path;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            fputs(tagent_usage().c_str(), stdout);
            return TAGENT_DONE;
        }
        if (args.empty() && strcmp(argv[i], "-a") == 0) {
            if (++i == argc) {
                fprintf(stderr, "tagent: -a needs a socket path\n");
                return TAGENT_UNREACHABLE;
            }
            socket_path = argv[i];
            continue;
        }
        args.emplace_back(argv[i]);
    }
    if (args.empty()) {
        fputs(tagent_usage().c_str(), stderr);
        return TAGENT_UNREACHABLE;
    }
    TagentContext context;
    context.agent_socket = agent_socket_for_client(socket_path);
    context.control_socket = control_socket_beside(context.agent_socket);
    return tagent_run(context, args);
}
