// The client side of control.sock.
#pragma once

#include <cstdint>
#include <string>

#include "app/posix/control_protocol.h"

// Sends one request and reads its result, leaving the connection open (a
// watch subscription goes on on it): the descriptor, or -1 when the agent is
// not reachable or did not answer.
int control_open(const std::string &path, const ControlRequest &request, int64_t *result);
// Sends one request and reads its result; false when the agent is not
// reachable or did not answer.
bool control_call(const std::string &path, const ControlRequest &request, int64_t *result);
// The same, for callers that need no result.
bool control_send(const std::string &path, const ControlRequest &request);
