#include "telemetry_blob.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "telemetry_memory.h"

static constexpr int kStep = 256; // bytes

BlobBuffer::BlobBuffer() {
    filled_.buffer.grow = grow;
    blob_buf_init(&filled_.buffer, 0);
    if (!filled_.complete)
        throw std::bad_alloc();
}

blob_attr *BlobBuffer::head() {
    if (!filled_.complete)
        throw std::bad_alloc();
    return filled_.buffer.head;
}

bool BlobBuffer::grow(blob_buf *buffer, int wanted) {
    const int step = std::max({wanted, kStep, buffer->buflen / 2});
    const ptrdiff_t head = buffer->head == nullptr
                               ? -1
                               : reinterpret_cast<char *>(buffer->head) - static_cast<char *>(buffer->buf);
    void *const larger =
        realloc(buffer->buf, static_cast<size_t>(buffer->buflen) + static_cast<size_t>(step));
    if (larger == nullptr) {
        telemetry_memory_refused();
        reinterpret_cast<Filled *>(buffer)->complete = false;
        return false;
    }
    if (head >= 0)
        buffer->head = reinterpret_cast<blob_attr *>(static_cast<char *>(larger) + head);
    memset(static_cast<char *>(larger) + buffer->buflen, 0, static_cast<size_t>(step));
    buffer->buf = larger;
    buffer->buflen += step;
    return true;
}
