// Serving one client connection, the same for every transport: a shell
// wraps its socket or pipe in a ClientStream and hands it over here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

constexpr int AGENT_MAX_CONNECTIONS = 255;

// A connected client's byte stream.
class ClientStream {
public:
    virtual ~ClientStream() = default;
    // Reads at most `size` bytes; 0 when the client closed or the read
    // failed, or, for a stream that never blocks, when nothing is waiting.
    virtual size_t read_some(uint8_t *data, size_t size) = 0;
    // True when the last read returned 0 because nothing was waiting.
    virtual bool would_block() const { return false; }
    // Writes all bytes; false on failure.
    virtual bool write_all(const uint8_t *data, size_t size) = 0;
    // Called from another thread at shutdown: ends a read that blocks.
    virtual void interrupt() = 0;
    // The handle that the connection's log lines show.
    virtual uint32_t log_handle() const = 0;
};

// How a connection's bytes are cut into requests.
enum class Framing {
    // The length prefix is read, then exactly that many bytes, so every
    // well-formed request is answered; a request above the dispatcher's limit
    // reaches it as its length and first body byte, and the rest is read and
    // thrown away to keep the stream in step.
    EXACT_LENGTH,
    // Pipe reads of up to 131072 bytes; a read under 5 bytes gets one more
    // read joined to it, and whatever came is one request.
    PIPE_READS,
};

// Admits the connection and serves it on a thread of its own until the
// client goes away. False (and the stream is dropped, closing it) when
// AGENT_MAX_CONNECTIONS are open already or no thread could be started.
bool start_client_connection(std::unique_ptr<ClientStream> stream, Framing framing);

// Serves a connection on the calling thread, without the registry; for
// transports that make their own threads.
void serve_client_connection(ClientStream *stream, Framing framing, uint64_t connection);

// For transports that serve their connections from one event loop rather
// than a thread each. Admits a connection with the same limit and log line
// as start_client_connection; 0 when it is refused (the caller closes it).
// The stream must stay alive until release_client_connection.
uint64_t admit_client_connection(ClientStream *stream);
// The lines that open and end every connection; the shutdown line also
// drops the connection's forwarding notice.
void log_connection_established(const ClientStream *stream);
void log_connection_shutdown(const ClientStream *stream, uint64_t connection);
// Gives the connection's place back, after its shutdown line; the stream
// may be destroyed after this.
void release_client_connection(uint64_t connection);

// Interrupts every open connection and waits (a few seconds at most) for
// their threads to end.
void close_client_connections();
