// The store keeps what it must on both databases: every test runs on SQLite and on a real PostgreSQL.
#include <atomic>
#include <thread>

#include <gmock/gmock.h>

#include "postgresql.h"
#include "receiver_store.h"

using ::testing::ElementsAre;

namespace {

constexpr int64_t kDay = 86400, kNow = 1767225600;

Upload upload_of(const std::string &device, const std::string &digest, int64_t received = kNow) {
    return {device,
            "M",
            "1.0",
            digest,
            100,
            received,
            {{"system_info", "1767225500", 1767225500, "{\"a\":\"\xff\"}"}, {"usb_info", "7", 7, "{}"}}};
}

class StoreTest : public ::testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        where_ = directory_.path() + "/store.db";
        if (std::string(GetParam()) != "postgresql")
            return;
        if (const std::string missing = Postgresql::missing(); !missing.empty())
            GTEST_SKIP() << missing;
        postgresql_ = std::make_unique<Postgresql>();
        where_ = postgresql_->where();
    }
    lab::RunDirectory directory_;
    std::unique_ptr<Postgresql> postgresql_;
    std::string where_;
};

TEST_P(StoreTest, KeepsABodyOnceWithItsBytesAndTheNewestOfEachKind) {
    Store store(where_, 2);
    EXPECT_TRUE(store.accept(upload_of("A", "1")));
    EXPECT_FALSE(store.accept(upload_of("A", "1", kNow + kDay)));
    EXPECT_TRUE(store.accept(upload_of("B", "1")));
    Upload older = upload_of("A", "2", kNow + 5);
    older.records = {{"system_info", "1000", 1000, "{}"}, {"usb_info", "9", 9, R"({"b":1})"}};
    older.firmware = "1.1";
    EXPECT_TRUE(store.accept(older));

    EXPECT_EQ(store.number("SELECT count(*) FROM posts"), 3);
    EXPECT_EQ(store.number("SELECT count(*) FROM records"), 6);
    EXPECT_THAT(
        store.select("SELECT eid, payload FROM newest WHERE device = $1 ORDER BY eid", {"A"}),
        ElementsAre(ElementsAre("system_info", "{\"a\":\"\xff\"}"), ElementsAre("usb_info", R"({"b":1})")));
    EXPECT_THAT(store.select("SELECT device, firmware, uploads, records FROM devices ORDER BY device"),
                ElementsAre(ElementsAre("A", "1.1", "2", "4"), ElementsAre("B", "1.0", "1", "2")));
}

TEST_P(StoreTest, ReceiversSideBySideShareKeysStrategiesAndDuplicates) {
    Store first(where_, 2), second(where_, 2);
    for (int i = 0; i < 12; i++)
        first.add_key({"key-" + std::to_string(i), "secret", false, "A", kNow + i}, "mac");
    EXPECT_FALSE(second.find_key("key-0")); // more than a device needs
    EXPECT_EQ(second.find_key("key-11")->device, "A");
    second.expire_keys();
    EXPECT_TRUE(first.find_key("key-11")->expired);

    first.set_strategy("", {"all", "x"});
    first.set_strategy("A", {"own", "y"});
    EXPECT_EQ(second.strategy("A").id, "own");
    EXPECT_EQ(second.strategy("B").id, "all");
    second.set_strategy("A", {});
    EXPECT_EQ(first.strategy("A").id, "all");

    std::atomic<int> stored = 0;
    std::vector<std::thread> threads;
    for (Store *store : {&first, &first, &second, &second}) {
        threads.emplace_back([&stored, store] {
            for (int i = 0; i < 20; i++)
                stored += store->accept(upload_of("A", std::to_string(i)));
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(stored, 20);
    EXPECT_EQ(first.number("SELECT count(*) FROM records"), 40);
}

TEST_P(StoreTest, AFailedUploadLeavesNothingAndDaysAreForgottenWhole) {
    Store store(where_, 2);
    Upload broken = upload_of("A", "1");
    store.select("DROP TABLE newest");
    EXPECT_THROW(store.accept(broken), StoreError);
    for (const char *table : {"accepted", "posts", "records", "devices"})
        EXPECT_EQ(store.number(std::string("SELECT count(*) FROM ") + table), 0) << table;

    Store mended(where_, 2);
    for (int day = 0; day < 3; day++)
        EXPECT_TRUE(mended.accept(upload_of("A", std::to_string(day), kNow + day * kDay)));
    mended.forget_before(kNow + 2 * kDay + 5);
    EXPECT_EQ(mended.number("SELECT count(*) FROM records"), 2);
    EXPECT_TRUE(mended.accept(upload_of("A", "9", kNow + 2 * kDay)));
    EXPECT_TRUE(Store(where_, 1).accept(upload_of("A", "0", kNow))); // the day is made anew
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreTest, ::testing::Values("sqlite", "postgresql"),
                         [](const auto &store) { return std::string(store.param); });

} // namespace
