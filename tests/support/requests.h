// Framed requests that tests send to an agent.
#pragma once

#include <string>

#include "support/bytes.h"

// A message number and one string: unlock (23, 159), ping (212), the
// client's version (1).
inline Bytes string_request(uint8_t number, const std::string &text)
{
    Buffer b;
    buffer_put_char(&b, number);
    buffer_put_string(&b, text.data(), static_cast<uint32_t>(text.size()));
    return frame(buffer_bytes(b));
}

// The plain forwarding notice (206): it has no reply.
inline Bytes forwarding_notice(const std::string &host, const std::string &address, uint32_t port = 22)
{
    Buffer b;
    buffer_put_char(&b, 206);
    buffer_put_cstring(&b, host.c_str());
    buffer_put_cstring(&b, address.c_str());
    buffer_put_int(&b, port);
    return frame(buffer_bytes(b));
}

// The vendor forwarding notice (158); `mode` also sets how certificates
// are listed.
inline Bytes vendor_forwarding_notice(const std::string &host, const std::string &address, uint32_t mode,
                                      uint64_t session = 0)
{
    Buffer b;
    buffer_put_char(&b, 158);
    buffer_put_cstring(&b, host.c_str());
    buffer_put_cstring(&b, address.c_str());
    buffer_put_int(&b, 22);
    buffer_put_int(&b, 3);
    buffer_put_int(&b, 0);
    buffer_put_int(&b, mode);
    buffer_put_int64(&b, session);
    buffer_put_int(&b, 0);
    return frame(buffer_bytes(b));
}

// An OpenSSH sign request (13) for `blob`.
inline Bytes sign_request(const Bytes &blob, const std::string &data, uint32_t flags = 0)
{
    Buffer b;
    buffer_put_char(&b, 13);
    buffer_put_string(&b, blob.data(), static_cast<uint32_t>(blob.size()));
    buffer_put_string(&b, data.data(), static_cast<uint32_t>(data.size()));
    buffer_put_int(&b, flags);
    return frame(buffer_bytes(b));
}
