// The `uci` command as people and scripts see it: output, messages, exit status.
#include "uci_fixture.h"

#include <sys/wait.h>

namespace {

class UciCommandTest : public UciTest {
  protected:
    // Runs the command; its standard output and error are `output`.
    int run(const std::string &arguments, std::string &output) const {
        const std::string command = TEST_BIN_DIR "/uci -c " + root.path("/etc/config") + " -t " +
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
    root.write("/batch", "get p.x # c\nset 'p.x.n'='1 2' ; get p\nfoo\nget p.x.n\nexit\nget p.x\n");
    const struct {
        std::string arguments;
        const char *output;
        int status;
    } steps[] = {
        {"get p.x.l", "1 '2 3'\n", 0},
        {"get p.x.", "uci: Parse error\n", 1},
        {"-S show bad", "Parse error (EOF with unterminated ') at line 1, byte 12\n", 0},
        {"-p " + root.path("/tmp/other") + " get p.x.o", "1\n", 0},
        {"set p.x.o='two words'", "", 0},
        {"set p.y.o=1", "uci: Invalid argument\n", 1},
        {"add p zone", "cfg02dc81\n", 0},
        {"set p.@zone[-1].n=1", "", 0},
        {"add p zone", "cfg03dc81\n", 0},
        {"rename p.@zone[1]=named", "", 0},
        {"add_list p.x.l=4", "", 0},
        {"del_list p.x.l=1", "", 0},
        {"show p",
         "p.x=a\np.x.o='two words'\np.x.l='2 3' '4'\np.@zone[0]=zone\np.@zone[0].n='1'\np.named=zone\n", 0},
        {"changes",
         "uci: Parse error (EOF with unterminated ') at line 1, byte 12\n"
         "p.x.o='two words'\np.cfg02dc81='zone'\np.cfg02dc81.n='1'\np.cfg03dc81='zone'\np.cfg03dc81='named'\n"
         "p.x.l+='4'\np.x.l-='1'\n",
         0},
        {"revert p.x.l", "", 0},
        {"delete p.named", "", 0},
        {"batch < " + root.path("/batch"), "Unknown command\na\n1 2\n", 0},
        {"get", nullptr, 255},
        {"", nullptr, 0},
    };
    std::string output;
    for (const auto &step : steps) {
        SCOPED_TRACE(step.arguments);
        EXPECT_EQ(run(step.arguments, output), step.status);
        if (step.output)
            EXPECT_EQ(output, step.output);
        else
            EXPECT_NE(output.find("Usage: uci"), std::string::npos);
    }
}

} // namespace
