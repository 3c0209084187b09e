#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "telemetry_post.h"

TEST(post_buffer, grows_in_steps_and_keeps_a_zero_behind_the_text) {
    const struct {
        std::vector<int32_t> appends;
        int32_t capacity;
    } cases[] = {
        {{1}, 1024},          {{1023}, 1024},      {{1024}, 2048},          {{1025}, 2048},
        {{1000, 23}, 1024},   {{1000, 24}, 2048},  {{1023, 1}, 2048},       {{1024, 1023}, 2048},
        {{1024, 1024}, 3072}, {{1, 65536}, 66560}, {{500, 500, 500}, 2048},
    };
    for (const auto &c : cases) {
        PostBuffer buffer = {};
        std::string expected;
        for (const int32_t count : c.appends) {
            const std::string piece(static_cast<size_t>(count),
                                    static_cast<char>('a' + expected.size() % 26));
            EXPECT_EQ(telemetry_post_append_data(&buffer, piece.data(), count), count);
            expected += piece;
        }
        EXPECT_EQ(buffer.capacity, c.capacity);
        EXPECT_EQ(buffer.used, static_cast<int32_t>(expected.size()));
        EXPECT_EQ(std::string(buffer.data), expected);
        free(buffer.data);
    }
}

TEST(post_buffer, refuses_nonsense_and_sizes_beyond_32_bits) {
    PostBuffer buffer = {};
    EXPECT_EQ(telemetry_post_append_data(nullptr, "a", 1), -1);
    EXPECT_EQ(telemetry_post_append_data(&buffer, nullptr, 1), -1);
    EXPECT_EQ(telemetry_post_append_data(&buffer, "a", 0), -1);
    EXPECT_EQ(telemetry_post_append_data(&buffer, "a", -5), -1);
    EXPECT_EQ(buffer.data, nullptr);

    constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
    const std::string piece(2048, 'x');
    for (const int32_t used : {kMax, kMax - 2048, kMax - 3000}) {
        PostBuffer full = {nullptr, used, used};
        EXPECT_EQ(telemetry_post_append_data(&full, piece.data(), 2048), -1) << used;
        EXPECT_EQ(full.used, used);
        EXPECT_EQ(full.capacity, used);
    }
}

TEST(post_buffer, starts_anew_when_its_lengths_contradict) {
    PostBuffer buffer = {static_cast<char *>(malloc(16)), 10, 5};
    EXPECT_EQ(telemetry_post_append_data(&buffer, "abc", 3), 3);
    EXPECT_EQ(buffer.used, 3);
    EXPECT_EQ(buffer.capacity, 1024);
    EXPECT_STREQ(buffer.data, "abc");
    free(buffer.data);
}

TEST(post_buffer, answers_are_bounded) {
    PostRequest request = {};
    const std::string block(1 << 16, 'x');
    for (int i = 0; i < kPostMaxResponse / (1 << 16); i++)
        ASSERT_EQ(write_response_data_(block.data(), 1, block.size(), &request), block.size());
    EXPECT_EQ(request.response.used, kPostMaxResponse);
    EXPECT_EQ(write_response_data_(block.data(), 1, 1, &request), 0U);
    EXPECT_EQ(write_response_data_(block.data(), SIZE_MAX / 2, 4, &request), 0U);
    EXPECT_EQ(write_response_data_(nullptr, 1, 1, &request), 0U);
    EXPECT_EQ(write_response_data_(block.data(), 1, 1, nullptr), 0U);
    EXPECT_EQ(request.response.used, kPostMaxResponse);
    free(request.response.data);
}
