#include "app/request_reader.h"

#include <cstring>

#include "agent/protocol.h"
#include "keys/buffer.h"

bool RequestReader::fill(size_t need)
{
    while (end_ - begin_ < need) {
        if (buffer_.size() - begin_ < need) {
            // Move the unread bytes to the front, and wipe what they leave.
            size_t unread = end_ - begin_;
            memmove(buffer_.data(), buffer_.data() + begin_, unread);
            wipe_memory(buffer_.data() + unread, end_ - unread);
            begin_ = 0;
            end_ = unread;
            if (buffer_.size() < need)
                buffer_.resize(need);
        }
        size_t got = stream_->read_some(buffer_.data() + end_, buffer_.size() - end_);
        if (got == 0)
            return false;
        end_ += got;
    }
    return true;
}

bool RequestReader::next(const uint8_t **data, uint32_t *size, uint32_t *skip)
{
    if (!fill(4))
        return false;
    uint32_t length = get_u32(buffer_.data() + begin_);
    uint32_t body = length > AGENT_MAX_REQUEST ? 1 : length;
    *skip = length - body;
    if (!fill(4 + static_cast<size_t>(body)))
        return false;
    *data = buffer_.data() + begin_;
    *size = 4 + body;
    taken_ = *size;
    return true;
}

void RequestReader::release()
{
    wipe_memory(buffer_.data() + begin_, taken_);
    begin_ += taken_;
    taken_ = 0;
    if (begin_ == end_)
        begin_ = end_ = 0;
}

bool RequestReader::discard(uint32_t *left)
{
    while (*left > 0) {
        if (begin_ == end_ && !fill(1))
            return false;
        size_t drop = end_ - begin_ < *left ? end_ - begin_ : *left;
        taken_ = drop;
        release();
        *left -= static_cast<uint32_t>(drop);
    }
    return true;
}
