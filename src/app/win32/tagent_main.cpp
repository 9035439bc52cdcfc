// tagent.exe with arguments: the command-line client of the agent, the same
// commands as on POSIX, over the agent's pipe and window messages. Without
// arguments: the manager window.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/tagent/tagent_commands.h"
#include "app/win32/manager_window.h"

int main(int argc, char **argv)
{
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            fputs(tagent_usage().c_str(), stdout);
            return TAGENT_DONE;
        }
        args.emplace_back(argv[i]);
    }
    if (args.empty())
        return run_manager_window();
    // The agent is found by its window; these name it in messages.
    TagentContext context;
    context.agent_socket = "the Tarnwell Key Agent window";
    context.control_socket = context.agent_socket;
    return tagent_run(context, args);
}
