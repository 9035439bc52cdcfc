#include "agent/shell_hooks.h"

namespace {
AgentShellHooks &hooks_storage()
{
    static AgentShellHooks hooks;
    return hooks;
}
}  // namespace

void agent_shell_hooks_set(const AgentShellHooks &hooks) { hooks_storage() = hooks; }

const AgentShellHooks &agent_shell_hooks() { return hooks_storage(); }
