// A configuration file with changes staged on it: what loads is written, and reads again as the same.
#include <cstdint>
#include <memory>

#include <uci.h>

#include "support/fuzz_root.h"

// The package with its staged changes as text; false when it does not load.
static bool load(std::string &text, bool commit) {
    std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx(uci_alloc_context(), uci_free_context);
    uci_set_confdir(ctx.get(), fuzz_root().path("/etc/config").c_str());
    uci_set_savedir(ctx.get(), fuzz_root().path("/save").c_str());
    uci_package *p = nullptr;
    if (uci_load(ctx.get(), "p", &p) != UCI_OK)
        return false;
    require(!commit || uci_commit(ctx.get(), &p, true) == UCI_OK);
    char *buffer = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&buffer, &size);
    require(uci_export(ctx.get(), stream, p, false) == UCI_OK);
    fclose(stream);
    text.assign(buffer, size);
    free(buffer);
    return true;
}

// Input: the file, and after a line "%%" the staged changes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t border = input.find("\n%%\n");
    fuzz_root().write("/etc/config/p", input.substr(0, border));
    fuzz_root().write("/save/p", border == input.npos ? std::string_view() : input.substr(border + 4));
    std::string first, again;
    if (!load(first, true))
        return 0;
    fuzz_root().write("/save/p", {});
    require(load(again, false) && first == again);
    return 0;
}
