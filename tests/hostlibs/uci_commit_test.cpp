// A commit leaves the old file or the new one, and no change of anybody is lost.
#include "uci_fixture.h"

namespace {

constexpr char kOld[] = "\nconfig a 'x'\n\toption o 'old'\n\n";
constexpr char kNew[] = "\nconfig a 'x'\n\toption o 'new'\n\n";

class UciCommitTest : public UciTest {
  protected:
    UciCommitTest() {
        root.write_config("p", kOld);
    }

    int set_and_commit(const std::string &place) {
        auto ctx = context();
        const int rc = change(ctx.get(), uci_set, place);
        auto *p = uci_lookup_package(ctx.get(), "p");
        return rc == UCI_OK ? uci_commit(ctx.get(), &p, false) : rc;
    }
    // Commits what is staged: as a new program does it.
    void expect_commit_gives(const std::string &expected) {
        EXPECT_EQ(seen(), expected);
        auto ctx = context();
        uci_package *p = nullptr;
        ASSERT_EQ(uci_load(ctx.get(), "p", &p), UCI_OK);
        ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
        EXPECT_EQ(exported(ctx.get(), p), expected);
        EXPECT_EQ(root.read("/etc/config/p"), expected);
        EXPECT_EQ(root.read("/tmp/.uci/p"), "");
    }
};

TEST_F(UciCommitTest, AppliesWhatAnOperatorStaged) {
    const struct {
        const char *staged;
        const char *expected;
    } cases[] = {
        {"p.x.o='it'\\''s'\np.x.n='1\n2'\n", "\nconfig a 'x'\n\toption o 'it'\\''s'\n\toption n '1\n2'\n\n"},
        {"+p.cfg02dc81='zone'\n@p.cfg02dc81='z'\np.z.o='1'\n",
         "\nconfig a 'x'\n\toption o 'old'\n\nconfig zone 'z'\n\toption o '1'\n\n"},
        {"@p.x.o='q'\n", "\nconfig a 'x'\n\toption q 'old'\n\n"},
        {"-p.x\n", "\n"},
        {"p.x.o=''\n|p.x.l='1'\n|p.x.l='2'\n~p.x.l='1'\n", "\nconfig a 'x'\n\tlist l '2'\n\n"},
        {"p.y='b'\n^p.y='0'\n", "\nconfig b 'y'\n\nconfig a 'x'\n\toption o 'old'\n\n"},
        // What is no change, or none of this package, disturbs nothing; names and values are looked at here.
        {"q.x.o='1'\np.x\n=\n+\np.x.o.q='1'\np.no.o='1'\n\x01\x02\np.x.o-p='1'\n@p.x='s t'\n+p.s=''\n"
         "p.x.o='a\x01'\np.x.o='new'\np.x.o='cut",
         kNew},
    };
    for (const auto &[staged, expected] : cases) {
        SCOPED_TRACE(staged);
        root.write_config("p", kOld);
        root.write("/tmp/.uci/p", staged);
        expect_commit_gives(expected);
    }
    // Half a staged change spoils none that is added behind it.
    for (const char *staged : {"p.x.n='1'\np.x.o='cut", "p.x.n='1'", "p.x.n='1'\np.x.o=\\"}) {
        SCOPED_TRACE(staged);
        root.write_config("p", "config a x\n");
        root.write("/tmp/.uci/p", staged);
        ASSERT_EQ(set_and_commit("p.x.q=2"), UCI_OK);
        EXPECT_EQ(root.read("/etc/config/p"), "\nconfig a 'x'\n\toption n '1'\n\toption q '2'\n\n");
    }
}

} // namespace
