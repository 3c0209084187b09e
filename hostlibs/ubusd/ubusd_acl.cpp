// Rights of callers other than root, from JSON files: each names a user, a group or both, and lists for them
// "access" (by object, its "methods"), "publish", "listen", "send" and "subscribe".
#include "ubusd.h"

#include <algorithm>
#include <cstdio>
#include <glob.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace {

enum { key_user, key_group, key_access, key_publish, key_listen, key_send, key_subscribe, key_count };
constexpr blobmsg_policy file_policy[key_count] = {
    {"user", BLOBMSG_TYPE_STRING},     {"group", BLOBMSG_TYPE_STRING}, {"access", BLOBMSG_TYPE_TABLE},
    {"publish", BLOBMSG_TYPE_ARRAY},   {"listen", BLOBMSG_TYPE_ARRAY}, {"send", BLOBMSG_TYPE_ARRAY},
    {"subscribe", BLOBMSG_TYPE_ARRAY},
};

constexpr struct {
    int key;
    ubusd_right right;
} name_lists[] = {
    {key_publish, ubusd_right::publish},
    {key_listen, ubusd_right::listen},
    {key_send, ubusd_right::send},
    {key_subscribe, ubusd_right::subscribe},
};

std::vector<std::string> read_names(blob_attr *list) {
    std::vector<std::string> names;
    blob_attr *pos;
    size_t left;
    blobmsg_for_each_attr(pos, list, left) {
        if (blobmsg_check_attr(pos, false) && blobmsg_type(pos) == BLOBMSG_TYPE_STRING)
            names.emplace_back(blobmsg_get_string(pos));
    }
    return names;
}

void add_access(std::vector<ubusd_grant> &grants, ubusd_grant grant, blob_attr *objects) {
    constexpr blobmsg_policy policy = {"methods", BLOBMSG_TYPE_ARRAY};
    blob_attr *object;
    size_t left;
    blobmsg_for_each_attr(object, objects, left) {
        blob_attr *methods = nullptr;
        if (!blobmsg_check_attr(object, true) || blobmsg_type(object) != BLOBMSG_TYPE_TABLE)
            continue;
        blobmsg_parse(&policy, 1, &methods, blobmsg_data(object),
                      static_cast<unsigned>(blobmsg_data_len(object)));
        grant.name = blobmsg_name(object);
        grant.methods = read_names(methods);
        grants.push_back(grant);
    }
}

void add_grants(std::vector<ubusd_grant> &grants, ubusd_grant grant, blob_attr *const *keys) {
    add_access(grants, grant, keys[key_access]);
    for (const auto &list : name_lists) {
        grant.right = list.right;
        for (std::string &name : read_names(keys[list.key])) {
            grant.name = std::move(name);
            grants.push_back(grant);
        }
    }
}

// Who may change the file could grant himself everything.
bool only_root_writes(const char *path) {
    struct stat info;
    if (stat(path, &info) != 0)
        return false;
    bool owned = info.st_uid == 0 && info.st_gid == 0;
    bool closed = (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    if (!owned || !closed)
        std::fprintf(stderr, "ubusd: %s has wrong %s\n", path, owned ? "permissions" : "owner");
    return owned && closed;
}

void load_file(std::vector<ubusd_grant> &grants, const char *path) {
    if (!only_root_writes(path))
        return;
    bus_table buf;
    blob_attr *keys[key_count] = {};
    if (!blobmsg_add_json_from_file(&buf, path))
        std::fprintf(stderr, "ubusd: failed to parse %s\n", path);
    else
        blobmsg_parse(file_policy, key_count, keys, blob_data(buf.head),
                      static_cast<unsigned>(blob_len(buf.head)));
    const passwd *user = keys[key_user] ? getpwnam(blobmsg_get_string(keys[key_user])) : nullptr;
    const group *group = keys[key_group] ? getgrnam(blobmsg_get_string(keys[key_group])) : nullptr;
    ubusd_grant grant;
    if (user) {
        grant.owner = user->pw_uid;
        add_grants(grants, grant, keys);
    }
    if (group) {
        grant.by_group = true;
        grant.owner = group->gr_gid;
        add_grants(grants, grant, keys);
    }
}

bool name_matches(std::string_view pattern, std::string_view name) {
    if (pattern.ends_with('*'))
        return name.starts_with(pattern.substr(0, pattern.size() - 1));
    return name == pattern;
}

bool grant_is_for(const ubusd_grant &grant, const ubusd_client &client) {
    if (!grant.by_group)
        return grant.owner == client.uid;
    return std::count(client.groups.begin(), client.groups.end(), grant.owner) > 0;
}

} // namespace

void ubusd_acl_load(ubusd_server &server, const char *directory) {
    server.grants.clear();
    server.acl_sequence++;
    glob_t files = {};
    std::string pattern = std::string(directory) + "/*.json";
    if (glob(pattern.c_str(), 0, nullptr, &files) == 0) {
        for (size_t i = 0; i < files.gl_pathc; i++)
            load_file(server.grants, files.gl_pathv[i]);
    }
    globfree(&files);
}

bool ubusd_may(const ubusd_client &client, ubusd_right right, std::string_view name,
               std::string_view method) {
    if (client.uid == 0)
        return true;
    const std::vector<ubusd_grant> &grants = client.server->grants;
    return std::any_of(grants.begin(), grants.end(), [&](const ubusd_grant &grant) {
        if (grant.right != right || !grant_is_for(grant, client) || !name_matches(grant.name, name))
            return false;
        return right != ubusd_right::access ||
               std::any_of(grant.methods.begin(), grant.methods.end(),
                           [method](const std::string &one) { return one == "*" || one == method; });
    });
}
