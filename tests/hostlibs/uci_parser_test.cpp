// What a configuration file may look like, and that nothing else gets in.
#include "uci_fixture.h"

#include <sys/stat.h>

namespace {

struct ParseCase {
    std::string text;
    const char *expected; // as written again; null for a parse error
};

const ParseCase kParseCases[] = {
    {"package q\nconfig a x", "\nconfig a 'x'\n\n"},
    {"config a\r\n\toption o v\r\n", "\nconfig a\n\toption o 'v'\n\n"},
    {"config 'a#b' x\n", "\nconfig 'a#b' 'x'\n\n"},
    // Quoting, short words, what ends a statement.
    {"config a x\noption o \"q\\\"'\"\n", "\nconfig a 'x'\n\toption o 'q\"'\\'''\n\n"},
    {"config a x\noption o 'a\\b'\n", "\nconfig a 'x'\n\toption o 'a\\b'\n\n"},
    {"config a x\noption o 'one\ntwo'\"b\"c\n", "\nconfig a 'x'\n\toption o 'one\ntwobc'\n\n"},
    {"config a x\noption o \"one\\\ntwo\"\n", "\nconfig a 'x'\n\toption o 'onetwo'\n\n"},
    {"c a 'x'; o o 1 ;l l 'a;b' # ; o q 1\n", "\nconfig a 'x'\n\toption o '1'\n\tlist l 'a;b'\n\n"},
    {{"config a x\noption o 1\n\0option q 1\n", 34}, "\nconfig a 'x'\n\toption o '1'\n\n"},
    // What repeats.
    {"config a x\noption o 1\noption o 2\noption o ''\n", "\nconfig a 'x'\n\toption o '2'\n\n"},
    {"config a x\noption o 1\nconfig b y\nconfig a x\noption q 2\n",
     "\nconfig a 'x'\n\toption o '1'\n\toption q '2'\n\nconfig b 'y'\n\n"},
    {"config a x\noption l 1\nlist l 2\n", "\nconfig a 'x'\n\tlist l '1'\n\tlist l '2'\n\n"},
    {"config a x\nlist l 1\noption l 2\n", "\nconfig a 'x'\n\toption l '2'\n\n"},
    // Faults.
    {"option o v\n", nullptr},
    {"config a x-y\n", nullptr},
    {"'config' a x\n", nullptr},
    {"config a x\nconfig b x\n", nullptr},
    {"config a x\noption o v w\n", nullptr},
    {"config a x\noption o \"v\n", nullptr},
    {"package ../p\n", nullptr},
    {"\x7f\x45LF\x02\x01\x01", nullptr},
};

class UciParserTest : public UciTest {};

TEST_F(UciParserTest, ReadsAndWrites) {
    for (const auto &[text, expected] : kParseCases) {
        SCOPED_TRACE(text);
        root.write_config("p", text);
        auto ctx = context();
        uci_package *p = nullptr;
        const int rc = uci_load(ctx.get(), "p", &p);
        if (!expected) {
            EXPECT_EQ(rc, UCI_ERR_PARSE);
            EXPECT_EQ(p, nullptr);
            char *reason = nullptr;
            uci_get_errorstr(ctx.get(), &reason, "uci");
            EXPECT_TRUE(std::string(reason).starts_with("uci: Parse error (")) << reason;
            free(reason);
            continue;
        }
        ASSERT_EQ(rc, UCI_OK);
        EXPECT_EQ(exported(ctx.get(), p), expected);
        EXPECT_EQ(uci_load(ctx.get(), "p", &p), UCI_ERR_DUPLICATE);
    }
}

TEST_F(UciParserTest, WhatIsNoFileIsNoPackage) {
    mkfifo(root.path("/etc/config/p").c_str(), 0600); // would block a plain open for ever
    mkdir(root.path("/etc/config/d").c_str(), 0700);
    auto ctx = context();
    uci_package *p = nullptr;
    EXPECT_EQ(uci_load(ctx.get(), "p", &p), UCI_ERR_IO);
    EXPECT_EQ(uci_load(ctx.get(), "d", &p), UCI_ERR_IO);
    for (const char *name : {"missing", "", "..", "../config/p"})
        EXPECT_EQ(uci_load(ctx.get(), name, &p), UCI_ERR_NOTFOUND) << name;
}

TEST_F(UciParserTest, FindsPlaces) {
    root.write_config("p", "config a x\noption o v\nlist l 1\nconfig system\noption o s0\n"
                           "config zone\noption o z0\nconfig zone\noption o z1\n");
    const struct {
        const char *place;
        int rc;
        const char *found; // value or type; null when the lookup is not complete
    } cases[] = {
        {"p.x.o", UCI_OK, "v"},
        {"p.x.q", UCI_OK, nullptr},
        {"p.cfg02e48a.o", UCI_OK, "s0"}, // the names that other programs give them
        {"p.@zone[0].o", UCI_OK, "z0"},
        {"p.@zone[-1].o", UCI_OK, "z1"},
        {"p.@zone", UCI_ERR_INVAL, nullptr},
        {"p.[0]", UCI_ERR_INVAL, nullptr},
        {"p.@zone[99999999999999999999]", UCI_ERR_INVAL, nullptr},
        {"p.x.o.q", UCI_ERR_PARSE, nullptr},
        {"q.x", UCI_ERR_NOTFOUND, nullptr},
    };
    auto ctx = context();
    for (const auto &[place, rc, found] : cases) {
        SCOPED_TRACE(place);
        std::string text = place;
        uci_ptr ptr;
        ASSERT_EQ(uci_lookup_ptr(ctx.get(), &ptr, text.data(), true), rc);
        if (rc != UCI_OK)
            continue;
        ASSERT_EQ((ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0, found != nullptr);
        if (found) {
            EXPECT_STREQ(ptr.o ? ptr.o->v.string : ptr.s->type, found);
        }
    }
}

} // namespace
