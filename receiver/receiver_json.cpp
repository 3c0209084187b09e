#include "receiver_json.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <sys/stat.h>

namespace receiver_json {

std::string print_json(const cJSON *tree) {
    std::unique_ptr<char, void (*)(void *)> text(cJSON_PrintUnformatted(tree), cJSON_free);
    return text ? text.get() : "";
}

std::string json_text(const cJSON *object, const char *name, const std::string &fallback) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsString(item) ? item->valuestring : fallback;
}

double json_number(const cJSON *object, const char *name, double fallback) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsNumber(item) ? item->valuedouble : fallback;
}

std::string json_quoted(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 0x20) {
            char code[8];
            snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned char>(c));
            out += code;
            continue;
        }
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return text.str();
}

void write_file(const std::string &path, const std::string &text, unsigned mode) {
    const std::string draft = path + ".new";
    {
        std::ofstream file(draft, std::ios::binary | std::ios::trunc);
        file << text;
        if (!file.flush())
            throw std::runtime_error("cannot write " + draft);
    }
    if (chmod(draft.c_str(), mode) != 0 || rename(draft.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
}

} // namespace receiver_json
