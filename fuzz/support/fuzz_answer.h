// The input as the reply of a service on the bus that fake_services.h stands for.
#pragma once

#include <cstdint>
#include <string>

#include "../../tests/support/fake_services.h"

// As a message's bytes, or as JSON made a message.
inline ServiceAnswer answer_of(const uint8_t *data, size_t size, bool json) {
    ServiceAnswer answer;
    answer.fill = [=](blob_buf *reply) {
        const std::string text(reinterpret_cast<const char *>(data), size);
        if (!json)
            blob_put_raw(reply, data, static_cast<unsigned>(size));
        else if (!blobmsg_add_json_from_string(reply, text.c_str()))
            blob_buf_init(reply, 0);
    };
    return answer;
}
