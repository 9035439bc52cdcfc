// The name of the agent's per-client pipe, built the same way by the agent
// and by its clients.
#pragma once

#include <cstdint>
#include <string>

// "\\.\pipe\TarnwellAgentPipe<id>_<domain>_<user>": domain and user keep
// their letters and digits only ("USERDOMAIN" and "USERNAME" when nothing
// is left); at most 259 characters. A null domain or user counts as empty.
std::string agent_pipe_name(uint32_t identifier, const char *domain, const char *user);

// The same with USERDOMAIN and USERNAME from the environment.
std::string agent_pipe_name_for_user(uint32_t identifier);
