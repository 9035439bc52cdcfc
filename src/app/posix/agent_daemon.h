// The tkeyagent daemon: start-up, the main loop and shutdown.
#pragma once

#include "app/posix/agent_options.h"

// Runs the agent to its end; returns the process exit status.
int run_agent(const AgentOptions &options);

// Stops the agent that holds the runtime folder's lock (-k).
int stop_running_agent(const AgentOptions &options);
