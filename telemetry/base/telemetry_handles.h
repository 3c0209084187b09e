// Owners for what C libraries hand out: each is released when its scope ends, on every path.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <unistd.h>

#include <cjson/cJSON.h>
#include <curl/curl.h>

#include "telemetry_platform_libs.h"

template <auto Release> struct HandleRelease {
    template <typename T> void operator()(T *handle) const {
        Release(handle);
    }
};

using JsonPtr = std::unique_ptr<cJSON, HandleRelease<cJSON_Delete>>;
// Text from malloc: printed JSON, blobmsg_format_json.
using TextPtr = std::unique_ptr<char, HandleRelease<free>>;
using FilePtr = std::unique_ptr<FILE, HandleRelease<fclose>>;
using DirPtr = std::unique_ptr<DIR, HandleRelease<closedir>>;
using UciContextPtr = std::unique_ptr<uci_context, HandleRelease<uci_free_context>>;
using BusContextPtr = std::unique_ptr<ubus_context, HandleRelease<ubus_free>>;
using CurlSlistPtr = std::unique_ptr<curl_slist, HandleRelease<curl_slist_free_all>>;

// A file descriptor that is closed with its scope.
class FdHandle {
  public:
    explicit FdHandle(int fd) : fd_(fd) {}
    ~FdHandle() {
        if (fd_ >= 0)
            close(fd_);
    }
    FdHandle(const FdHandle &) = delete;
    FdHandle &operator=(const FdHandle &) = delete;
    int get() const {
        return fd_;
    }
    bool valid() const {
        return fd_ >= 0;
    }

  private:
    int fd_;
};

// Length of the first `length` bytes of a longer text without the UTF-8 character that the cut parts.
inline size_t whole_characters(const char *text, size_t length) {
    for (size_t back = 1; back <= 3 && back <= length; back++) {
        const auto byte = static_cast<unsigned char>(text[length - back]);
        if ((byte & 0xc0) == 0x80)
            continue;
        const size_t needed = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
        return needed > back ? length - back : length;
    }
    return length;
}

// Copies a text into a buffer of `size` characters: at most size - 1 of them, always terminated; what is cut
// ends at the end of a UTF-8 character. A null source empties it. No strnlen: where the compiler knows the
// source, it takes a bound beyond it for a mistake.
inline void copy_text(char *destination, size_t size, const char *source) {
    if (size == 0)
        return;
    size_t length = 0;
    while (source != nullptr && length < size - 1 && source[length] != '\0')
        length++;
    if (source != nullptr && source[length] != '\0')
        length = whole_characters(source, length);
    if (length > 0)
        memmove(destination, source, length);
    destination[length] = '\0';
}

// The same for an array.
template <size_t N> void copy_text(char (&destination)[N], const char *source) {
    copy_text(destination, N, source);
}
