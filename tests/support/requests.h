// Framed requests that tests send to an agent.
#pragma once

#include <string>

#include "support/bytes.h"

// A framed request: the message number, then what `fill` appends.
template <typename Fill>
Bytes request_of(uint8_t number, Fill fill)
{
    Buffer b;
    buffer_put_char(&b, number);
    fill(&b);
    return frame(buffer_bytes(b));
}

inline void put_bytes(Buffer *b, const Bytes &bytes)
{
    buffer_put_string(b, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// A message number and one string: unlock (23, 159), ping (212), the
// client's version (1).
inline Bytes string_request(uint8_t number, const std::string &text)
{
    return request_of(number, [&](Buffer *b) { put_bytes(b, Bytes(text.begin(), text.end())); });
}

// The plain forwarding notice (206): it has no reply.
inline Bytes forwarding_notice(const std::string &host, const std::string &address, uint32_t port = 22)
{
    return request_of(206, [&](Buffer *b) {
        buffer_put_cstring(b, host.c_str());
        buffer_put_cstring(b, address.c_str());
        buffer_put_int(b, port);
    });
}

// A vendor forwarding notice (158): server, address, port, the signature
// types, the enumeration setting, the client's window and its list mode.
inline Bytes vendor_notice(const std::string &host, uint32_t enum_setting, uint64_t window = 0,
                           uint32_t list_mode = 0, uint32_t rsa_sigtype = 3, uint32_t dsa_sigtype = 0)
{
    return request_of(158, [&](Buffer *b) {
        buffer_put_cstring(b, host.c_str());
        buffer_put_cstring(b, "10.0.0.7");
        buffer_put_int(b, 22);
        buffer_put_int(b, rsa_sigtype);
        buffer_put_int(b, dsa_sigtype);
        buffer_put_int(b, enum_setting);
        buffer_put_int64(b, window);
        buffer_put_int(b, list_mode);
    });
}

// An OpenSSH sign request (13) for `blob`.
inline Bytes sign_request(const Bytes &blob, const std::string &data, uint32_t flags = 0)
{
    return request_of(13, [&](Buffer *b) {
        put_bytes(b, blob);
        put_bytes(b, Bytes(data.begin(), data.end()));
        buffer_put_int(b, flags);
    });
}
