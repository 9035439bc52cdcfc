#include <cstdio>

#include "app/posix/agent_daemon.h"

int main(int argc, char **argv)
{
    AgentOptions options;
    bool help = false;
    std::string message;
    if (!parse_agent_options(argc, argv, &options, &help, &message)) {
        fprintf(stderr, "tkeyagent: %s\n%s", message.c_str(), AGENT_USAGE);
        return 1;
    }
    if (help) {
        fputs(AGENT_USAGE, stdout);
        return 0;
    }
    return options.kill ? stop_running_agent(options) : run_agent(options);
}
