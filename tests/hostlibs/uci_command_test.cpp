// The `uci` command as people and scripts see it: output, messages, exit status.
#include "uci_fixture.h"

#include <sys/wait.h>

namespace {

class UciCommandTest : public UciTest {
  protected:
    // Runs the command; its standard output and error are `output`.
    int run(const std::string &arguments, std::string &output) const {
        const std::string command = TEST_BIN_DIR "/uci -c " + root.path("/etc/config") + " -P " +
                                    root.path("/tmp/.uci") + " " + arguments + " >" + root.path("/out") +
                                    " 2>&1";
        const int status = system(command.c_str());
        output = root.read("/out");
        return WEXITSTATUS(status);
    }
};

TEST_F(UciCommandTest, OneSession) {
    root.write_config("p", "config a x\noption o \"it's\"\nlist l 1\nlist l '2 3'\n");
    root.write_config("bad", "config a 'x\n");
    root.write("/tmp/other/p", "p.x.o='1'\n");
    root.write("/input", "package one\nconfig a\noption b 1\npackage two\nconfig c d\n");
    root.write("/bad_input", "package one\nconfig 'a\n");
    const struct {
        std::string arguments;
        const char *output;
        int status;
    } steps[] = {
        {"get p.x", "a\n", 0},
        {"get p.x.o", "it's\n", 0},
        {"get p.x.l", "1 '2 3'\n", 0},
        {"get p.x.q", "uci: Entry not found\n", 1},
        {"-q get p.x.q", "", 1},
        {"get p..x", "uci: Invalid argument\n", 1},
        {"show bad", "uci: Parse error (unterminated ') at line 1\n", 1},
        {"-p " + root.path("/tmp/other") + " get p.x.o", "1\n", 0},
        {"set p.x.o='two words'", "", 0},
        {"set p.y.o=1", "uci: Entry not found\n", 1},
        {"add p zone", "cfg02dc81\n", 0},
        {"set p.@zone[-1].n=1", "", 0},
        {"add p zone", "cfg03dc81\n", 0},
        {"rename p.@zone[1]=named", "", 0},
        {"add_list p.x.l=4", "", 0},
        {"del_list p.x.l=1", "", 0},
        {"delete p.x.none", "uci: Entry not found\n", 1},
        {"show p",
         "p.x=a\np.x.o='two words'\np.x.l='2 3' '4'\np.@zone[0]=zone\np.@zone[0].n='1'\np.named=zone\n", 0},
        {"-X show p.@zone[0].n", "p.cfg02dc81.n='1'\n", 0},
        {"changes",
         "uci: Parse error (unterminated ') at line 1\n"
         "p.x.o='two words'\np.cfg02dc81='zone'\np.cfg02dc81.n='1'\np.cfg03dc81='zone'\np.cfg03dc81='named'\n"
         "p.x.l+='4'\np.x.l-='1'\n",
         1},
        {"revert p.x.l", "", 0},
        {"delete p.named", "", 0},
        {"commit p", "", 0},
        {"changes p", "", 0},
        {"export p",
         "package p\n\nconfig a 'x'\n\toption o 'two words'\n\tlist l '1'\n\tlist l '2 3'\n\nconfig zone\n"
         "\toption n '1'\n\n",
         0},
        {"commit none", "uci: Entry not found\n", 1},
        {"import < " + root.path("/input"), "", 0},
        {"show two", "two.d=c\n", 0},
        {"-f " + root.path("/input") + " import three", "", 0},
        {"show three", "three.@a[0]=a\nthree.@a[0].b='1'\nthree.d=c\n", 0},
        {"import < " + root.path("/bad_input"), "uci: Parse error (unterminated ') at line 2\n", 1},
        {"show one", "one.@a[0]=a\none.@a[0].b='1'\n", 0},
    };
    std::string output;
    for (const auto &step : steps) {
        SCOPED_TRACE(step.arguments);
        EXPECT_EQ(run(step.arguments, output), step.status);
        EXPECT_EQ(output, step.output);
    }
    for (const char *misuse : {"", "unknown", "get", "get a b", "-Z show", "add p"}) {
        EXPECT_NE(run(misuse, output), 0) << misuse;
        EXPECT_NE(output.find("Usage: uci"), std::string::npos) << misuse;
    }
}

} // namespace
