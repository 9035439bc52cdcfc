// A connected pipe instance as a client byte stream; flushed, disconnected
// and closed when dropped.
#pragma once

#include <windows.h>

#include "app/client_connection.h"

class PipeStream : public ClientStream {
public:
    explicit PipeStream(HANDLE pipe) : pipe_(pipe) {}
    ~PipeStream() override;
    PipeStream(const PipeStream &) = delete;
    PipeStream &operator=(const PipeStream &) = delete;

    size_t read_some(uint8_t *data, size_t size) override;
    bool write_all(const uint8_t *data, size_t size) override;
    void interrupt() override;
    uint32_t log_handle() const override;

private:
    HANDLE pipe_;
};
