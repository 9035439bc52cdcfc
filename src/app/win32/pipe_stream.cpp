#include "app/win32/pipe_stream.h"

PipeStream::~PipeStream()
{
    FlushFileBuffers(pipe_);
    DisconnectNamedPipe(pipe_);
    CloseHandle(pipe_);
}

size_t PipeStream::read_some(uint8_t *data, size_t size)
{
    DWORD got = 0;
    if (!ReadFile(pipe_, data, static_cast<DWORD>(size), &got, nullptr))
        return 0;
    return got;
}

bool PipeStream::write_all(const uint8_t *data, size_t size)
{
    DWORD written = 0;
    return WriteFile(pipe_, data, static_cast<DWORD>(size), &written, nullptr) && written == size;
}

// Ends a read that blocks: the pending I/O is cancelled and the client cut
// off, so the next read fails too.
void PipeStream::interrupt()
{
    CancelIoEx(pipe_, nullptr);
    DisconnectNamedPipe(pipe_);
}

uint32_t PipeStream::log_handle() const { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pipe_)); }
