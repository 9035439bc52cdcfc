// What the Windows manager window changes in tagent's connections.
#pragma once

// From now on a connection goes only to an agent that runs and answers
// ready: none is started or waited for, so that a window reacting to the
// agent's last notices cannot start it again or hang while it stops.
void tagent_connect_to_running_agent_only();
