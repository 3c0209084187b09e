#include "telemetry_uci_package.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "telemetry_guarded.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"

static constexpr size_t kBackupFileLimit = 1 << 20; // bytes
static constexpr size_t kLookupSize = 256;          // of "package.section"

// --- One package ---

// A context of one of our own directories loads packages by their path: then neither what an operator has
// staged for the system's package of the same name nor an override of it counts, and a commit writes what is
// loaded.
static std::string own_package_path(const uci_context *uci, const char *name) {
    for (const char *directory : {kBackupConfigDir, kProfileConfigDir}) {
        if (uci->confdir != nullptr && telemetry_path(directory) == uci->confdir)
            return strchr(name, '/') == nullptr ? telemetry_path(directory) + "/" + name : "";
    }
    return name;
}

static bool is_backup(const uci_context *uci) {
    return uci->confdir != nullptr && telemetry_path(kBackupConfigDir) == uci->confdir;
}

// What makes a backup file one that the library must not see; null when nothing does. A zero byte makes it
// double its line buffer up to 4 GiB.
static const char *backup_fault(const std::string &path) {
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        return "is no file"; // opening a pipe would wait for its writer
    const FilePtr file(fopen(path.c_str(), "re"));
    char block[4096];
    size_t size = 0;
    for (size_t n; file != nullptr && (n = fread(block, 1, sizeof(block), file.get())) > 0;) {
        size += n;
        if (memchr(block, '\0', n) != nullptr)
            return "holds a zero byte";
        if (size > kBackupFileLimit)
            return "is larger than 1 MiB";
    }
    return nullptr;
}

static void set_aside(const std::string &path, const char *name, const char *reason) {
    LOG_ERROR("%s/%s %s: set aside as %s.broken, starting anew", kBackupConfigDir, name, reason, name);
    if (rename(path.c_str(), (path + ".broken").c_str()) != 0)
        unlink(path.c_str());
    const FilePtr anew(fopen(path.c_str(), "we"));
}

LoadedPackage::LoadedPackage(uci_context *uci, const char *name, Use use)
    : uci_(uci), name_(name), stays_loaded_(use == SHARED && TelemetryUciScope::owns(uci)) {
    if (stays_loaded_)
        package_ = uci_lookup_package(uci, name);
    else if (TelemetryUciScope::owns(uci))
        TelemetryUciScope::give_up(uci, name);
    if (package_ == nullptr)
        load();
}

LoadedPackage::~LoadedPackage() {
    if (!stays_loaded_)
        unload();
}

bool telemetry_uci_succeeded(int status) {
    if (status == UCI_ERR_MEM)
        telemetry_memory_refused();
    return status == UCI_OK;
}

bool LoadedPackage::load() {
    if (uci_ == nullptr)
        return false;
    const std::string path = own_package_path(uci_, name_);
    if (path.empty())
        return false;
    const bool backup = is_backup(uci_);
    const char *fault = backup ? backup_fault(path) : nullptr;
    if (fault != nullptr)
        set_aside(path, name_, fault);
    int status = uci_load(uci_, path.c_str(), &package_);
    if (backup && status == UCI_ERR_PARSE) {
        set_aside(path, name_, "cannot be read");
        status = uci_load(uci_, path.c_str(), &package_);
    }
    if (!telemetry_uci_succeeded(status))
        package_ = nullptr;
    return package_ != nullptr;
}

void LoadedPackage::unload() {
    if (package_ != nullptr)
        uci_unload(uci_, package_);
    package_ = nullptr;
}

// A commit replaces the package; one that fails may have freed it without telling.
bool LoadedPackage::commit() {
    const bool written = telemetry_uci_succeeded(uci_commit(uci_, &package_, false));
    package_ = uci_lookup_package(uci_, name_);
    return written && package_ != nullptr;
}

bool telemetry_uci_is_name(const char *text) {
    return text[strspn(text, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_")] == '\0';
}

std::string telemetry_uci_option_text(uci_option *option) {
    if (option->type == UCI_TYPE_STRING)
        return option->v.string;
    std::string text;
    uci_element *item = nullptr;
    uci_foreach_element(&option->v.list, item) {
        if (&item->list != option->v.list.next)
            text += ' ';
        text += item->name;
    }
    return text;
}

uci_section *telemetry_uci_find_section(uci_context *uci, const char *package, const char *section) {
    char path[kLookupSize];
    snprintf(path, sizeof(path), "%s.%s", package, section);
    uci_ptr place{};
    if (uci_lookup_ptr(uci, &place, path, true) != UCI_OK ||
        (place.flags & uci_ptr::UCI_LOOKUP_COMPLETE) == 0)
        return nullptr;
    return place.s;
}

bool telemetry_uci_set_option(uci_context *uci, uci_section *section, const char *option, const char *value) {
    if (section == nullptr || !telemetry_uci_is_name(option))
        return false;
    uci_ptr place{};
    place.target = UCI_TYPE_OPTION;
    place.p = section->package;
    place.s = section;
    place.o = uci_lookup_option(uci, section, option);
    place.package = section->package->e.name;
    place.section = section->e.name;
    place.option = option;
    place.value = value;
    return telemetry_uci_succeeded(uci_set(uci, &place));
}

bool telemetry_uci_has_value(uci_context *uci, const char *package, const char *section, const char *option,
                             const char *value) {
    // A look-up would load what is not loaded, by its name only.
    uci_section *found = uci_lookup_package(uci, package) == nullptr
                             ? nullptr
                             : telemetry_uci_find_section(uci, package, section);
    uci_option *entry = found == nullptr ? nullptr : uci_lookup_option(uci, found, option);
    return found != nullptr && (entry == nullptr ? std::string() : telemetry_uci_option_text(entry)) == value;
}

// --- The scope ---

static TelemetryUciScope *outermost;
static TelemetryUciCycle *cycle;
static constexpr uint32_t kOwnSources[] = {TELEMETRY_UCI_BACKUP, TELEMETRY_UCI_PROFILE};

TelemetryUciCycle::TelemetryUciCycle() {
    if (cycle == nullptr)
        cycle = this;
}

TelemetryUciCycle::~TelemetryUciCycle() {
    if (cycle == this)
        cycle = nullptr;
}

TelemetryUciScope::TelemetryUciScope() {
    if (outermost != nullptr)
        return;
    outermost = this;
    for (const uint32_t source : kOwnSources) {
        if (cycle != nullptr)
            sources_[source].uci = std::move(cycle->kept[source]);
    }
}

TelemetryUciScope::~TelemetryUciScope() {
    if (outermost != this)
        return;
    const bool whole = telemetry_guarded("commit", false, [&] { return finish(); });
    if (!whole)
        telemetry_guarded("putting back", [&] { put_back(); });
    outermost = nullptr;
    if (cycle == nullptr || !whole)
        return;
    for (const uint32_t source : kOwnSources)
        cycle->kept[source] = std::move(sources_[source].uci);
}

bool TelemetryUciScope::finish() {
    if (std::uncaught_exceptions() == exceptions_ && telemetry_memory_failures() == refused_)
        commit();
    return std::uncaught_exceptions() == exceptions_ && telemetry_memory_failures() == refused_;
}

void TelemetryUciScope::on_put_back(std::function<void()> undo) {
    if (outermost != nullptr)
        outermost->undo_.push_back(std::move(undo));
}

void TelemetryUciScope::put_back() {
    for (auto undo = undo_.rbegin(); undo != undo_.rend(); ++undo)
        telemetry_guarded("putting back", *undo);
    for (uint32_t number = 0; number < std::size(sources_); ++number) {
        Source &source = sources_[number];
        source.waiting.clear();
        source.uci.reset(); // and what it put there
        const Packages committed = std::move(source.committed);
        for (const auto &[package, options] : committed) {
            for (const Waiting &one : options) {
                const LoadedPackage loaded(context(number), package.c_str());
                if (loaded.get() != nullptr && // and nobody else has set it since
                    telemetry_uci_has_value(context(number), package.c_str(), one.section.c_str(),
                                            one.option.c_str(), one.value.c_str()))
                    put(number, package.c_str(), one.section.c_str(), one.option.c_str(), one.before.c_str(),
                        one.type.c_str());
            }
        }
    }
    commit();
}

bool TelemetryUciScope::active() {
    return outermost != nullptr;
}

uci_context *TelemetryUciScope::context(uint32_t source) {
    Source &shared = outermost->sources_[source];
    if (!shared.uci)
        shared.uci.reset(telemetry_uci_alloc_context(source));
    return shared.uci.get();
}

bool TelemetryUciScope::owns(const uci_context *uci) {
    if (outermost == nullptr)
        return false;
    for (const Source &source : outermost->sources_) {
        if (uci != nullptr && source.uci.get() == uci)
            return true;
    }
    return false;
}

// Makes a section without a trace when it fails.
static uci_section *add_section(uci_context *uci, uci_package *package, const char *section,
                                const char *type) {
    uci_ptr place{};
    place.target = UCI_TYPE_SECTION;
    place.p = package;
    place.package = package->e.name;
    place.section = section;
    place.value = type;
    if (!telemetry_uci_is_name(section) || !telemetry_uci_succeeded(uci_set(uci, &place))) {
        LOG_ERROR("uci_add_section failed");
        return nullptr;
    }
    return place.s;
}

bool TelemetryUciScope::put(uint32_t source, const char *package, const char *section, const char *option,
                            const char *value, const char *type) {
    uci_context *uci = context(source);
    if (uci == nullptr) {
        LOG_ERROR("uci_alloc_context failed");
        return false;
    }
    const LoadedPackage loaded(uci, package);
    uci_section *target =
        loaded.get() == nullptr ? nullptr : telemetry_uci_find_section(uci, package, section);
    if (target == nullptr && *type != '\0') {
        LOG_DEBUG("failed to find the specified section! add now");
        if (loaded.get() == nullptr) {
            LOG_ERROR("Failed to uci_load package %s", package);
            return false;
        }
        target = add_section(uci, loaded.get(), section, type);
        if (target == nullptr)
            return false;
    }
    uci_option *entry = target == nullptr ? nullptr : uci_lookup_option(uci, target, option);
    const std::string before = entry == nullptr ? std::string() : telemetry_uci_option_text(entry);
    if (!telemetry_uci_set_option(uci, target, option, value)) {
        LOG_DEBUG("uci_set %s.%s.%s=%s failed", package, section, option, value);
        return false;
    }
    std::vector<Waiting> &waiting = outermost->sources_[source].waiting[package];
    for (Waiting &earlier : waiting) {
        if (earlier.section == section && earlier.option == option) {
            earlier.value = value;
            return true;
        }
    }
    waiting.push_back({section, option, value, type, before});
    return true;
}

bool TelemetryUciScope::commit_package(Source *source, const std::string &name,
                                       const std::vector<Waiting> &waiting) {
    std::vector<Waiting> &committed = source->committed[name];
    committed.insert(committed.begin(), waiting.begin(), waiting.end()); // the oldest is put back last
    uci_context *const uci = source->uci.get();
    const char *const package = name.c_str();
    LoadedPackage loaded(uci, package);
    const bool written = loaded.get() != nullptr && loaded.commit() && loaded.reload();
    if (!written)
        loaded.reload();
    bool stored = true;
    // The library does not look at what becomes of its writes.
    for (const Waiting &one : waiting) {
        if (written &&
            telemetry_uci_has_value(uci, package, one.section.c_str(), one.option.c_str(), one.value.c_str()))
            continue;
        LOG_ERROR("uci_commit failed");
        LOG_MISSING("reason: %s.%s.%s was not written", package, one.section.c_str(), one.option.c_str());
        stored = false;
    }
    return stored;
}

bool TelemetryUciScope::commit() {
    bool stored = true;
    for (Source &source : outermost->sources_) {
        for (const auto &[package, waiting] : source.waiting)
            stored = commit_package(&source, package, waiting) && stored;
        source.waiting.clear();
    }
    return stored;
}

void TelemetryUciScope::give_up(uci_context *uci, const char *package) {
    for (Source &source : outermost->sources_) {
        const auto found = source.waiting.find(package);
        if (source.uci.get() != uci || found == source.waiting.end())
            continue;
        commit_package(&source, package, found->second);
        source.waiting.erase(found);
    }
    if (uci_package *loaded = uci_lookup_package(uci, package); loaded != nullptr)
        uci_unload(uci, loaded);
}
