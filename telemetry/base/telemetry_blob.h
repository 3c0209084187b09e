// Messages of the bus that are filled without a look at each step: what memory was short for shows at the
// end.
#pragma once

#include "telemetry_platform_libs.h"

// A blobmsg buffer, initialised as an empty table. Throws std::bad_alloc when there is no memory for that.
class BlobBuffer {
  public:
    BlobBuffer();
    ~BlobBuffer() {
        blob_buf_free(&filled_.buffer);
    }
    BlobBuffer(const BlobBuffer &) = delete;
    BlobBuffer &operator=(const BlobBuffer &) = delete;
    // To be filled.
    blob_buf *get() {
        return &filled_.buffer;
    }
    // The message. Throws std::bad_alloc when a part of it found no memory.
    blob_attr *head();

  private:
    struct Filled {
        blob_buf buffer = {}; // first: it is all that its grow() is given
        bool complete = true;
    };
    static bool grow(blob_buf *buffer, int wanted);
    Filled filled_;
};

// A table or an array in a message while this lives.
template <void *(*Open)(blob_buf *, const char *), void (*Close)(blob_buf *, void *)> class BlobNest {
  public:
    explicit BlobNest(blob_buf *message, const char *name = nullptr)
        : message_(message), cookie_(Open(message, name)) {}
    ~BlobNest() {
        if (cookie_ != nullptr)
            Close(message_, cookie_);
    }
    BlobNest(const BlobNest &) = delete;
    BlobNest &operator=(const BlobNest &) = delete;

  private:
    blob_buf *message_;
    void *cookie_;
};

using BlobTable = BlobNest<blobmsg_open_table, blobmsg_close_table>;
using BlobArray = BlobNest<blobmsg_open_array, blobmsg_close_array>;
