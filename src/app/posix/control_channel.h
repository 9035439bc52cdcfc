// Serves control.sock, one thread per client: each request is handed to the
// shared window procedure; watch subscriptions stay open and receive event
// lines.
#pragma once

#include <cstdint>
#include <string>

// Accepts one control client on `listen_fd` and answers its request.
void control_channel_accept(int listen_fd);

// Sends `line` to every subscriber; subscribers that are gone are dropped.
void control_channel_broadcast(const std::string &line);
// Sends `line` to one subscriber; false when it is gone.
bool control_channel_send(uint64_t subscriber, const std::string &line);
bool control_channel_subscriber_alive(uint64_t subscriber);
void control_channel_close_all();
