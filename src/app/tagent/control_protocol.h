// The control socket ("control.sock"): the POSIX counterpart of the window
// messages that the manager program and the tray send to the agent's
// hidden window.
//
// Request: uint32 length of the rest, uint32 message, uint64 first
// parameter, uint64 second parameter, string data (the copy-data record).
// Reply: uint32 length 8, int64 the window procedure's result.
//
// CONTROL_WATCH turns the connection into a subscription: the reply's result
// is the subscriber's handle (the "window" that refresh registrations name),
// and then one text line arrives for every event: "changed", "locked",
// "unlocked", or "command N" for a registered refresh command.
#pragma once

#include <cstdint>
#include <string>

constexpr uint32_t CONTROL_WATCH = 0x8000;
constexpr uint32_t CONTROL_MAX_DATA = 4096;

struct ControlRequest {
    uint32_t message = 0;
    uint64_t wparam = 0;
    uint64_t lparam = 0;
    std::string data;
};

std::string control_encode_request(const ControlRequest &request);
// Decodes a request's body (what follows its length); false when the bytes
// are not one well-formed request.
bool control_decode_request(const uint8_t *body, size_t size, ControlRequest *request);
