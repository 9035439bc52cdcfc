// Forwarding notices: per connection, where a forwarded client connection
// comes from and how it wants certificates listed.
#pragma once

#include <cstdint>
#include <optional>

struct ForwardingNotice {
    uint64_t client_window = 0;
    uint64_t connection = 0;
    uint32_t list_mode = 0;     // how identity listing treats certificates here
    uint32_t enum_setting = 0;  // the enumeration setting the client sent
};

// The notice recorded for `connection`, if its client sent a vendor notice.
std::optional<ForwardingNotice> forwarding_notice_for_connection(uint64_t connection);

// The list mode for a client's enumeration setting: bits 8 to 11 name the
// kind of server; any other value keeps the list mode the client sent.
uint32_t forwarding_list_mode(uint32_t enum_setting, uint32_t sent_list_mode);

// The window last named by a vendor forwarding notice; it owns the agent's
// dialogs. 0 until a notice arrives.
uint64_t agent_dialog_owner();
// A vendor sign request names the owner window too.
void agent_dialog_owner_set(uint64_t window);

// Number of recorded notices, for status displays and tests.
size_t forwarding_notice_count();
