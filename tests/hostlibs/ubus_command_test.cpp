// The command that operators and scripts use: what it prints where, and its exit status.
#include <gtest/gtest.h>

#include "bus_daemon.h"
#include "sysroot.h"

namespace {

int answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
    if (strcmp(method, "echo") == 0)
        ubus_send_reply(ctx, req, msg);
    req->deferred = strcmp(method, "never") == 0;
    return strcmp(method, "deny") == 0 ? UBUS_STATUS_PERMISSION_DENIED : UBUS_STATUS_OK;
}

[[noreturn]] void serve(const std::string &socket, const char *path) {
    static const blobmsg_policy all_types[] = {
        {"text", BLOBMSG_TYPE_STRING}, {"number", BLOBMSG_TYPE_INT32}, {"flag", BLOBMSG_TYPE_BOOL},
        {"list", BLOBMSG_TYPE_ARRAY},  {"table", BLOBMSG_TYPE_TABLE},
    };
    static const ubus_method methods[] = {
        UBUS_METHOD("echo", answer, all_types), UBUS_METHOD_NOARG("deny", answer),
        UBUS_METHOD_NOARG("never", answer), UBUS_METHOD_NOARG("quiet", answer)};
    ubus_object_type type = UBUS_OBJECT_TYPE("test", methods);
    ubus_object object = {};
    object.name = path;
    object.type = &type;
    object.methods = methods;
    object.n_methods = static_cast<int>(ARRAY_SIZE(methods));
    uloop_init();
    LoopClient bus(socket);
    if (ubus_add_object(bus.bus(), &object) == 0)
        uloop_run();
    _exit(1);
}

// Serves one object in a process of its own until it is destroyed.
class Server {
  public:
    Server(const std::string &socket, const char *path) : pid_(fork()) {
        if (pid_ == 0)
            serve(socket, path);
    }
    ~Server() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

  private:
    pid_t pid_;
};

class UbusCommandTest : public SysrootTest {
  protected:
    BusDaemon bus{root.path("/var/run/ubus.sock")};

    int run(const std::string &arguments) const {
        const std::string command = TEST_BIN_DIR "/ubus -s " + bus.socket() + " " + arguments + " >" +
                                    root.path("/out") + " 2>" + root.path("/err");
        return WEXITSTATUS(system(command.c_str()));
    }
};

TEST_F(UbusCommandTest, PrintsAndExitsAsScriptsExpect) {
    Server server(bus.socket(), "served"), other(bus.socket(), "served.more"), before(bus.socket(), "also");
    ASSERT_EQ(run("-t 20 wait_for served also served.more"), 0);
    const struct {
        const char *arguments;
        int status;
        const char *out, *err;
    } cases[] = {
        {"list", 0, "also\nserved\nserved.more\n", ""},
        {"list 'ser*'", 0, "served\nserved.more\n", ""},
        {"list nothing", 4, "", "Command failed: Not found\n"},
        {"list nothing -S", 4, "", ""},
        {R"(call served echo '{"text":"a\"b","number":-1,"flag":true,"list":[1,"x"],"table":{}}')", 0,
         "{\n\t\"text\": \"a\\\"b\",\n\t\"number\": -1,\n\t\"flag\": true,\n\t\"list\": "
         "[\n\t\t1,\n\t\t\"x\"\n\t],\n\t\"table\": {\n\t\t\n\t}\n}\n",
         ""},
        {R"(-S call served echo '{"text":"a","number":1}')", 0, "{\"text\":\"a\",\"number\":1}\n", ""},
        {"call served quiet", 0, "", ""},
        {"call served deny", 6, "", "Command failed: Permission denied\n"},
        {"-S call served deny", 6, "", ""},
        {"call served echo 'not json'", 12, "", "Command failed: Parsing message data failed\n"},
        {"-t 1 call served never", 7, "", "Command failed: Request timed out\n"},
        {"-t 1 wait_for served nothing", 7, "", "Command failed: Request timed out\n"},
        {"-s /nowhere list", 10, "", "Command failed: Connection failed\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.arguments);
        EXPECT_EQ(run(c.arguments), c.status);
        EXPECT_EQ(root.read("/out"), c.out);
        EXPECT_EQ(root.read("/err"), c.err);
    }
    for (const char *wrong : {"", "dance", "call served", "-t x list", "list a b", "wait_for"}) {
        EXPECT_NE(run(wrong), 0) << wrong;
        EXPECT_NE(root.read("/err").find("Usage:"), std::string::npos) << wrong;
    }
    EXPECT_EQ(run("list -v served"), 0);
    const std::string out = root.read("/out");
    EXPECT_EQ(out.substr(0, 10), "'served' @");
    EXPECT_EQ(out.substr(out.find('\n')),
              "\n\t\"echo\":{\"text\":\"String\",\"number\":\"Integer\",\"flag\":\"Boolean\","
              "\"list\":\"Array\",\"table\":\"Table\"}\n\t\"deny\":{}\n\t\"never\":{}\n\t\"quiet\":{}\n");
}

TEST_F(UbusCommandTest, WaitsForObjectsThatComeLater) {
    Server first(bus.socket(), "first");
    const std::string command =
        TEST_BIN_DIR "/ubus -s " + bus.socket() + " -t 20 wait_for second first; echo status $?";
    FILE *waiting = popen(command.c_str(), "r");
    ASSERT_NE(waiting, nullptr);
    // Whether the waiter or the object comes first, it must return.
    Server second(bus.socket(), "second");
    char line[64] = "";
    EXPECT_NE(fgets(line, sizeof(line), waiting), nullptr);
    EXPECT_STREQ(line, "status 0\n");
    pclose(waiting);
}

} // namespace
