// The ways in for the clients Windows users already have: the OpenSSH agent
// pipe and the Pageant window, each unless its setting turns it off. Open
// while the agent's loop runs.
#pragma once

void third_party_clients_start();
void third_party_clients_stop();
