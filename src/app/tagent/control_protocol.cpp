#include "app/tagent/control_protocol.h"

#include "keys/buffer.h"

std::string control_encode_request(const ControlRequest &request)
{
    Buffer body;
    buffer_put_int(&body, request.message);
    buffer_put_int64(&body, request.wparam);
    buffer_put_int64(&body, request.lparam);
    buffer_put_string(&body, request.data.data(), static_cast<uint32_t>(request.data.size()));
    Buffer framed;
    buffer_put_buffer_string(&framed, &body);
    return std::string(reinterpret_cast<const char *>(buffer_ptr(&framed)), buffer_len(&framed));
}

bool control_decode_request(const uint8_t *body, size_t size, ControlRequest *request)
{
    if (size < 4 + 8 + 8 + 4 || size > CONTROL_MAX_DATA + 64)
        return false;
    Buffer b;
    buffer_append(&b, body, static_cast<uint32_t>(size));
    request->message = buffer_get_int(&b);
    request->wparam = buffer_get_int64(&b);
    request->lparam = buffer_get_int64(&b);
    uint32_t len = buffer_get_int(&b);
    if (len != buffer_len(&b) || len > CONTROL_MAX_DATA)
        return false;
    request->data.assign(reinterpret_cast<const char *>(buffer_ptr(&b)), len);
    return true;
}
