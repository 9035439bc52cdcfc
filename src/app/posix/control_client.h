// The client side of control.sock.
#pragma once

#include <cstdint>
#include <string>

#include "app/tagent/control_protocol.h"
#include "app/tagent/tagent_shell.h"

// Sends one request and reads its result, leaving the connection open (a
// watch subscription goes on on it): the descriptor, or -1 when the agent is
// not reachable or did not answer.
int control_open(const std::string &path, const ControlRequest &request, int64_t *result);
// The same, for callers that need no result.
bool control_send(const std::string &path, const ControlRequest &request);
