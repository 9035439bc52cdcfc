// The client side of control.sock.
#pragma once

#include <cstdint>
#include <string>

#include "app/posix/control_protocol.h"

// Connects to the control socket; -1 when no agent answers there.
int control_connect(const std::string &path);
// Sends one request and reads its result; false when the agent is not
// reachable or did not answer.
bool control_call(const std::string &path, const ControlRequest &request, int64_t *result);
// The same, for callers that need no result.
bool control_send(const std::string &path, const ControlRequest &request);
