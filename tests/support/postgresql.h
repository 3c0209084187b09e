// A PostgreSQL of the test's own: in its directory, on a Unix socket there, without root.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "lab.h"

class Postgresql {
  public:
    // Why there can be none here; "" where there can.
    static std::string missing() {
#ifndef RECEIVER_WITH_POSTGRESQL
        return "built without libpq";
#endif
        return programs().empty() ? "PostgreSQL is not installed" : "";
    }
    // "" where none is installed.
    static std::string programs() {
        const std::filesystem::path all = "/usr/lib/postgresql";
        if (std::filesystem::exists(all)) {
            for (const auto &version : std::filesystem::directory_iterator(all)) {
                if (lab::file_exists(version.path().string() + "/bin/initdb"))
                    return version.path().string() + "/bin/";
            }
        }
        return "";
    }

    Postgresql() {
        std::filesystem::permissions(directory_.path(), std::filesystem::perms(0777));
        const lab::CommandResult made =
            lab::run_command(unprivileged({programs() + "initdb", "-D", data(), "-A", "trust", "-U",
                                           "receiver", "--no-sync", "-E", "UTF8", "--locale=C.UTF-8"}),
                             {}, 60000);
        if (made.status != 0)
            throw std::runtime_error(made.out);
        start();
    }
    void start() {
        process_.start({unprivileged({programs() + "postgres", "-D", data(), "-k", directory_.path(), "-h",
                                      "", "-c", "max_connections=60"}),
                        {},
                        directory_.path() + "/log"});
        const std::vector<std::string> ready = {programs() + "pg_isready", "-q", "-h", directory_.path()};
        if (!lab::wait_until([&] { return lab::run_command(ready, {}, 5000).status == 0; }, 30000))
            throw std::runtime_error(lab::read_file(directory_.path() + "/log"));
    }
    // As a crash: nothing is written any more.
    void crash() {
        process_.signal(SIGQUIT);
        process_.wait(20000);
    }
    std::string where() const {
        return "postgresql://receiver@/postgres?host=" + directory_.path();
    }

  private:
    std::string data() const {
        return directory_.path() + "/data";
    }
    static std::vector<std::string> unprivileged(std::vector<std::string> command) {
        if (geteuid() == 0) {
            const char *const drop[] = {"setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups"};
            command.insert(command.begin(), std::begin(drop), std::end(drop));
        }
        return command;
    }

    lab::RunDirectory directory_;
    lab::Process process_;
};
