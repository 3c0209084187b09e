// Configuration: a file by itself, and the life of one: pieces, each the file, changes staged beside it, or a
// change as the command line has it. What is written reads the same again.
#include <cstdint>
#include <cstring>

#include "support/fuzz_target.h"
#include "telemetry_handles.h"
#include "telemetry_uci.h"

namespace {

std::string export_of(uci_context *uci, uci_package *package) {
    const FuzzPlenty plenty;
    char *text = nullptr;
    size_t length = 0;
    FILE *stream = open_memstream(&text, &length);
    require(uci_export(uci, stream, package, true) == UCI_OK);
    fclose(stream);
    const std::string exported(text, length);
    free(text);
    return exported;
}

// Without a name: of several packages the last.
uci_package *import_of(uci_context *uci, std::string_view text, const char *name = "p",
                       uci_package *package = nullptr) {
    const FilePtr stream(fmemopen(const_cast<char *>(text.data()), text.size(), "r"));
    const bool single = name != nullptr;
    return stream && uci_import(uci, stream.get(), name, &package, single) == UCI_OK ? package : nullptr;
}

void run_file(const uint8_t *data, size_t size) {
    const UciContextPtr uci(uci_alloc_context()), again(uci_alloc_context()), loose(uci_alloc_context());
    if (size == 0 || !again || !loose)
        return;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    loose->flags = UCI_FLAG_PERROR; // and not strict
    import_of(loose.get(), input, nullptr);
    uci_package *package = import_of(uci.get(), input);
    if (package == nullptr)
        return;
    const std::string text = export_of(uci.get(), package);
    uci_package *read = import_of(again.get(), text);
    require_with_memory(read != nullptr);
    if (read != nullptr)
        require(export_of(again.get(), read) == text);
    import_of(uci.get(), input, "p", package); // once more, into itself
}

using Change = int (*)(uci_context *uci, uci_ptr *place);

int reorder(uci_context *uci, uci_ptr *place) {
    return place->s == nullptr ? -1 : uci_reorder_section(uci, place->s, atoi(place->value));
}

int add(uci_context *uci, uci_ptr *place) {
    uci_section *section = nullptr;
    return uci_add_section(uci, place->p, place->value, &section);
}

// Whether it names a value, which some cannot do without.
constexpr struct {
    Change change;
    bool has_value;
} kChanges[] = {{uci_set, true},    {uci_add_list, true}, {uci_del_list, true},
                {uci_rename, true}, {uci_delete, false},  {reorder, true},
                {add, true},        {uci_revert, false},  {nullptr, false}};

// A rename may give two elements one name, which the next reading makes one, or refuses.
bool has_twins(uci_list *list) {
    uci_element *e = nullptr;
    uci_foreach_element(list, e) {
        if (uci_lookup_list(list, e->name) != e ||
            (e->type == UCI_TYPE_SECTION && has_twins(&uci_to_section(e)->options)))
            return true;
    }
    return false;
}

void commit(uci_context *uci, bool overwrite) {
    uci_package *package = uci_lookup_package(uci, "p");
    if (package == nullptr || uci_commit(uci, &package, overwrite) != UCI_OK || package == nullptr ||
        overwrite)
        return;
    const std::string text = export_of(uci, package);
    const UciContextPtr fresh(telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM));
    uci_package *read = nullptr;
    if (has_twins(&package->sections))
        return;
    const int status = fresh ? uci_load(fresh.get(), "p", &read) : UCI_ERR_MEM;
    require_with_memory(status == UCI_OK);
    if (status == UCI_OK)
        require(export_of(fresh.get(), read) == text);
}

void take_step(uci_context *uci, char kind, std::string text) {
    const auto &row = kChanges[static_cast<uint8_t>(kind - 'c') % std::size(kChanges)];
    uci_ptr place = {};
    if (row.change == nullptr) {
        if (uci_package *package = uci_lookup_package(uci, "p"))
            uci_save(uci, package);
        commit(uci, text == "!");
    } else if (uci_lookup_ptr(uci, &place, text.data(), true) == UCI_OK && place.p != nullptr &&
               (place.value != nullptr || !row.has_value)) {
        row.change(uci, &place);
    }
}

void run_life(const uint8_t *data, size_t size) {
    fuzz_root().write("/etc/config/p", "");
    fuzz_root().write("/tmp/.uci/p", "");
    const UciContextPtr uci(telemetry_uci_alloc_context(TELEMETRY_UCI_SYSTEM));
    if (!uci)
        return;
    if (size % 8 == 0)
        uci->flags = static_cast<uci_flags>(uci->flags | UCI_FLAG_SAVED_DELTA);
    uci_add_delta_path(uci.get(), fuzz_root().path(size % 4 == 0 ? "/tmp/.uci" : "/save").c_str());
    for (const FuzzPiece &piece : pieces_of({reinterpret_cast<const char *>(data), size})) {
        if (piece.kind == 'a' || piece.kind == 'b')
            fuzz_root().write(piece.kind == 'a' ? "/etc/config/p" : "/tmp/.uci/p", piece.text);
        else
            take_step(uci.get(), piece.kind, std::string(piece.text));
    }
    commit(uci.get(), false);
    // The daemon's own way to a value, in a context of its own.
    char value[64] = {};
    if (telemetry_get_uci_value("p", "s", "o", value, sizeof(value), TELEMETRY_UCI_SYSTEM) == 0)
        require(strnlen(value, sizeof(value)) < sizeof(value));
    if (telemetry_set_uci_value("p", "s", "o", "v", TELEMETRY_UCI_SYSTEM) == 0)
        require_with_memory(
            telemetry_get_uci_value("p", "s", "o", value, sizeof(value), TELEMETRY_UCI_SYSTEM) == 0 &&
            strcmp(value, "v") == 0);
}

const FuzzTargets registered({{"uci_file", run_file, mutate_uci},
                              {"uci_life", run_life, mutate_pieces,
                               [] { std::filesystem::create_directories(fuzz_root().path("/tmp/.uci")); }}});

} // namespace
