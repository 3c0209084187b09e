// The `uci` command as people and scripts see it: output, messages, exit status.
#include "uci_fixture.h"

#include <sys/wait.h>

namespace {

struct Step {
    const char *arguments;
    const char *output; // standard output and standard error
    int status;
};

class UciCommandTest : public UciTest {
  protected:
    void run(const Step &step) {
        SCOPED_TRACE(step.arguments);
        const std::string command = std::string(TEST_BIN_DIR "/uci -c ") + root.path("/etc/config") + " -P " +
                                    root.path("/tmp/.uci") + " " + step.arguments + " 2>&1";
        FILE *pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        std::string output;
        char block[512];
        for (size_t got; (got = fread(block, 1, sizeof(block), pipe)) > 0;)
            output.append(block, got);
        const int status = pclose(pipe);
        EXPECT_EQ(output, step.output);
        EXPECT_EQ(WEXITSTATUS(status), step.status);
    }
};

TEST_F(UciCommandTest, OneSession) {
    root.write_config("p", "config a x\noption o \"it's\"\nlist l 1\nlist l '2 3'\n");
    root.write_config("bad", "config a 'x\n");
    constexpr Step steps[] = {
        {"get p.x", "a\n", 0},
        {"get p.x.o", "it's\n", 0},
        {"get p.x.l", "1 '2 3'\n", 0},
        {"get p.y", "uci: Entry not found\n", 1},
        {"get p.x.q", "uci: Entry not found\n", 1},
        {"-q get p.x.q", "", 1},
        {"get q.x.q", "uci: Entry not found\n", 1},
        {"get p..x", "uci: Invalid argument\n", 1},
        {"show bad", "uci: Parse error (unterminated ') at line 1\n", 1},
        {"set p.x.o='two words'", "", 0},
        {"set p.y.o=1", "uci: Entry not found\n", 1},
        {"set p.x.o", "uci: Invalid argument\n", 1},
        {"add p zone", "cfg02dc81\n", 0},
        {"set p.@zone[-1].n=1", "", 0},
        {"add p zone", "cfg03dc81\n", 0},
        {"rename p.@zone[1]=named", "", 0},
        {"add_list p.x.l=4", "", 0},
        {"del_list p.x.l=1", "", 0},
        {"delete p.x.none", "uci: Entry not found\n", 1},
        {"show p",
         "p.x=a\np.x.o='two words'\np.x.l='2 3' '4'\np.@zone[0]=zone\np.@zone[0].n='1'\np.named=zone\n", 0},
        {"show p.@zone[0]", "p.@zone[0]=zone\np.@zone[0].n='1'\n", 0},
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
    };
    for (const auto &step : steps)
        run(step);
    EXPECT_EQ(root.read("/etc/config/p"),
              "\nconfig a 'x'\n\toption o 'two words'\n\tlist l '1'\n\tlist l '2 3'\n\n"
              "config zone\n\toption n '1'\n\n");
}

TEST_F(UciCommandTest, ImportsWhatItExports) {
    const std::string input = root.path("/input");
    root.write("/input", "package one\nconfig a\noption b 1\npackage two\nconfig c d\n");
    run({("import < " + input).c_str(), "", 0});
    run({"show", "one.@a[0]=a\none.@a[0].b='1'\ntwo.d=c\n", 0});
    run({("-f " + input + " import three").c_str(), "", 0});
    run({"show three", "three.@a[0]=a\nthree.@a[0].b='1'\nthree.d=c\n", 0});
    root.write("/input", "package one\nconfig 'a\n");
    run({("import < " + input).c_str(), "uci: Parse error (unterminated ') at line 2\n", 1});
    run({"get one.@a[0].b", "1\n", 0});
}

TEST_F(UciCommandTest, ReadsFurtherSaveDirectories) {
    root.write_config("p", "config a x\n");
    root.write("/tmp/other/p", "p.x.o='1'\n");
    run({("-p " + root.path("/tmp/other") + " get p.x.o").c_str(), "1\n", 0});
    run({"get p.x.o", "uci: Entry not found\n", 1});
}

TEST_F(UciCommandTest, MisuseIsExplained) {
    for (const char *arguments : {"", "unknown", "get", "get a b", "-Z show", "add p"}) {
        const std::string command = std::string(TEST_BIN_DIR "/uci ") + arguments + " 2>&1 | head -n 1";
        FILE *pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        std::string output;
        char block[512];
        while (fgets(block, sizeof(block), pipe))
            output += block;
        pclose(pipe);
        EXPECT_NE(output.find(*arguments == '-' ? "invalid option" : "Usage: uci"), std::string::npos)
            << output;
    }
}

} // namespace
