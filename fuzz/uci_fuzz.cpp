// A configuration file with changes staged on it: what loads is written, and reads again as the same.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <unistd.h>

#include <uci.h>

namespace {

struct Directories {
    std::string root;
    Directories() {
        char name[] = "/tmp/uci-fuzz-XXXXXX";
        if (!mkdtemp(name))
            abort();
        root = name;
        std::filesystem::create_directories(root + "/config");
        std::filesystem::create_directories(root + "/save");
    }
    ~Directories() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
};

void write_file(const std::string &path, std::string_view text) {
    FILE *file = fopen(path.c_str(), "w");
    if (!file || fwrite(text.data(), 1, text.size(), file) != text.size() || fclose(file) != 0)
        abort();
}

// The package with its staged changes as text; false when it does not load.
bool load(const std::string &root, std::string &text, bool commit) {
    std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx(uci_alloc_context(), uci_free_context);
    uci_set_confdir(ctx.get(), (root + "/config").c_str());
    uci_set_savedir(ctx.get(), (root + "/save").c_str());
    uci_package *p = nullptr;
    if (uci_load(ctx.get(), "p", &p) != UCI_OK)
        return false;
    if (commit && uci_commit(ctx.get(), &p, true) != UCI_OK)
        abort();
    char *buffer = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&buffer, &size);
    if (uci_export(ctx.get(), stream, p, false) != UCI_OK)
        abort();
    fclose(stream);
    text.assign(buffer, size);
    free(buffer);
    return true;
}

} // namespace

// Input: the file, and after a line "%%" the staged changes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const Directories directories;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t border = input.find("\n%%\n");
    write_file(directories.root + "/config/p", input.substr(0, border));
    write_file(directories.root + "/save/p",
               border == std::string_view::npos ? std::string_view() : input.substr(border + 4));
    std::string first, again;
    if (!load(directories.root, first, true))
        return 0;
    write_file(directories.root + "/save/p", {});
    if (!load(directories.root, again, false) || first != again)
        abort();
    return 0;
}
