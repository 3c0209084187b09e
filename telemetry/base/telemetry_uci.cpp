#include "telemetry_uci.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "telemetry_handles.h"
#include "telemetry_log.h"
#include "telemetry_memory.h"
#include "telemetry_paths.h"
#include "telemetry_repeat.h"
#include "telemetry_uci_package.h"

static constexpr char kConfigPackage[] = "telemetry";
static constexpr size_t kLookupSize = 256;       // of "package.section=name"
static constexpr size_t kProfileLookupSize = 50; // of "profile.@type[0].option"
static constexpr int kEnabledSize = 128;

static bool is_empty(const char *text) {
    return text == nullptr || text[0] == '\0';
}

static bool is_place(const char *package, const char *section, const char *option) {
    return !is_empty(package) && !is_empty(section) && !is_empty(option);
}

// Commits a change and reads it back: the library does not look at what becomes of its writes.
static bool commit_option(uci_context *uci, LoadedPackage &loaded, const char *package, const char *section,
                          const char *option, const char *value) {
    return loaded.commit() && loaded.reload() &&
           telemetry_uci_has_value(uci, package, section, option, value);
}

// Sets the option of a loaded package's section and commits when asked.
static int set_and_commit(uci_context *uci, LoadedPackage &loaded, uci_section *target, const char *package,
                          const char *section, const char *option, const char *value, int commit) {
    if (!telemetry_uci_set_option(uci, target, option, value)) {
        LOG_DEBUG("uci_set %s.%s.%s=%s failed", package, section, option, value);
        return -1;
    }
    if (commit != 0 && !commit_option(uci, loaded, package, section, option, value)) {
        LOG_ERROR("uci_commit failed");
        LOG_MISSING("reason: %s.%s.%s was not written", package, section, option);
        return -1;
    }
    return 0;
}

// Adds a section, gives it its name and commits. Null with one line when it is not there afterwards.
static uci_section *create_section(uci_context *uci, LoadedPackage &loaded, const char *package,
                                   const char *section, const char *type) {
    uci_section *added = nullptr;
    if (!telemetry_uci_succeeded(uci_add_section(uci, loaded.get(), type, &added)) || added == nullptr) {
        LOG_ERROR("uci_add_section failed");
        return nullptr;
    }
    char path[kLookupSize];
    snprintf(path, sizeof(path), "%s.%s=%s", package, added->e.name, section);
    const std::string text = path; // the lookup cuts its own up
    uci_ptr place{};
    if (uci_lookup_ptr(uci, &place, path, false) != UCI_OK) {
        LOG_ERROR("uci_lookup_ptr %s failed", text.c_str());
        return nullptr;
    }
    if (!telemetry_uci_is_name(section) || !telemetry_uci_succeeded(uci_rename(uci, &place))) {
        LOG_ERROR("uci_rename %s failed", text.c_str());
        return nullptr;
    }
    uci_section *created =
        loaded.commit() && loaded.reload() ? telemetry_uci_find_section(uci, package, section) : nullptr;
    if (created == nullptr) {
        LOG_ERROR("uci commit failed!");
        LOG_MISSING("reason: section %s.%s was not written", package, section);
    }
    return created;
}

bool telemetry_uci_use_source(uci_context *uci, uint32_t source) {
    if (uci == nullptr)
        return true; // told by the call that follows
    const char *directory = source == TELEMETRY_UCI_SYSTEM   ? kSystemConfigDir
                            : source == TELEMETRY_UCI_BACKUP ? kBackupConfigDir
                                                             : kProfileConfigDir;
    const bool set = uci_set_confdir(uci, telemetry_path(directory).c_str()) == UCI_OK &&
                     (source != TELEMETRY_UCI_SYSTEM ||
                      uci_set_savedir(uci, telemetry_path(kSystemConfigSaveDir).c_str()) == UCI_OK);
    if (!set)
        telemetry_memory_refused();
    return set;
}

uci_context *telemetry_uci_alloc_context(uint32_t source) {
    UciContextPtr uci(uci_alloc_context());
    // On a router the library's own directories are the system's.
    const bool own = source != TELEMETRY_UCI_SYSTEM || !telemetry_sysroot().empty();
    if (!uci)
        telemetry_memory_refused();
    return uci && (!own || telemetry_uci_use_source(uci.get(), source)) ? uci.release() : nullptr;
}

void telemetry_uci_close(uci_context *uci) {
    if (!TelemetryUciScope::owns(uci))
        uci_free_context(uci);
}

TelemetryUciPtr telemetry_uci_context(uint32_t source) {
    return TelemetryUciPtr(TelemetryUciScope::active() ? TelemetryUciScope::context(source)
                                                       : telemetry_uci_alloc_context(source));
}

TelemetryUciPtr telemetry_uci_open(uint32_t source, std::initializer_list<const char *> texts,
                                   const char *file, const char *function, int line) {
    const auto failed = [=](const char *message) {
        if (telemetry_log_enabled(TELEMETRY_LOG_ERROR))
            telemetry_log_write(TELEMETRY_LOG_ERROR, file, function, line, "%s", message);
        return TelemetryUciPtr();
    };
    for (const char *text : texts) {
        if (is_empty(text))
            return failed("param error");
    }
    TelemetryUciPtr uci = telemetry_uci_context(source);
    return uci ? std::move(uci) : failed("uci_alloc_context failed");
}

int uci_get_value(uci_context *uci, const char *package, const char *section, const char *option,
                  char *buffer, int size) {
    if (uci == nullptr || !is_place(package, section, option) || buffer == nullptr || size <= 0) {
        LOG_ERROR("param error");
        return -1;
    }
    const LoadedPackage loaded(uci, package);
    if (loaded.get() == nullptr) {
        LOG_DEBUG("uci_load failed: %s", package);
        return -1;
    }
    uci_section *found = uci_lookup_section(uci, loaded.get(), section);
    if (found == nullptr) {
        LOG_DEBUG("uci_lookup_section failed: %s", section);
        return -2;
    }
    uci_option *entry = uci_lookup_option(uci, found, option);
    const std::string text = entry == nullptr ? std::string() : telemetry_uci_option_text(entry);
    if (text.empty()) {
        LOG_DEBUG("uci_lookup_option failed: %s", option);
        return -3;
    }
    copy_text(buffer, static_cast<size_t>(size), text.c_str());
    return 0;
}

int uci_set_value(uci_context *uci, const char *package, const char *section, const char *option,
                  const char *value, int commit) {
    if (uci == nullptr || !is_place(package, section, option) || value == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    LoadedPackage loaded(uci, package, LoadedPackage::ALONE);
    uci_section *target = loaded.get() == nullptr ? nullptr : uci_lookup_section(uci, loaded.get(), section);
    return set_and_commit(uci, loaded, target, package, section, option, value, commit);
}

int uci_set_value_with_create(uci_context *uci, const char *package, const char *section, const char *option,
                              const char *value, const char *type, int commit) {
    if (uci == nullptr || !is_place(package, section, option) || value == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    LoadedPackage loaded(uci, package, LoadedPackage::ALONE);
    uci_section *target =
        loaded.get() == nullptr ? nullptr : telemetry_uci_find_section(uci, package, section);
    if (target == nullptr) {
        LOG_DEBUG("failed to find the specified section! add now");
        if (!loaded.reload()) {
            LOG_ERROR("Failed to uci_load package %s", package);
            return -1;
        }
        target = create_section(uci, loaded, package, section, is_empty(type) ? "config" : type);
        if (target == nullptr)
            return -1;
    }
    return set_and_commit(uci, loaded, target, package, section, option, value, commit);
}

int _telemetry_get_value_in_telemetry_config(uci_context *uci, const char *package, const char *section,
                                             const char *option, char *buffer, int size) {
    if (!telemetry_uci_use_source(uci, TELEMETRY_UCI_SYSTEM)) {
        LOG_ERROR("no memory for the directories of %s", kSystemConfigDir);
        return -1;
    }
    return uci_get_value(uci, package, section, option, buffer, size);
}

int _telemetry_set_value_in_telemetry_config_with_create(uci_context *uci, const char *package,
                                                         const char *section, const char *option,
                                                         const char *value) {
    if (!telemetry_uci_use_source(uci, TELEMETRY_UCI_SYSTEM)) {
        LOG_ERROR("no memory for the directories of %s", kSystemConfigDir);
        return -1;
    }
    return uci_set_value_with_create(uci, package, section, option, value, "device", 1);
}

int uci_get_profile_option(const char *section_type, const char *option, char *buffer, int size) {
    if (is_empty(section_type) || is_empty(option) || buffer == nullptr || size <= 0) {
        printf("invalid input!");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_context(TELEMETRY_UCI_PROFILE);
    if (!uci) {
        LOG_ERROR("uci load profile failed");
        return -1;
    }
    const LoadedPackage loaded(uci.get(), "profile");
    if (loaded.get() == nullptr) {
        LOG_ERROR("uci load profile failed");
        return -1;
    }
    char path[kProfileLookupSize];
    snprintf(path, sizeof(path), "profile.@%s[0].%s", section_type, option);
    uci_ptr place{};
    if (uci_lookup_ptr(uci.get(), &place, path, true) != UCI_OK || place.o == nullptr) {
        LOG_DEBUG("lookup ptr failed");
        return -1;
    }
    copy_text(buffer, static_cast<size_t>(size), telemetry_uci_option_text(place.o).c_str());
    return 0;
}

int telemetry_get_uci_value(const char *package, const char *section, const char *option, char *buffer,
                            int size, uint32_t source) {
    if (buffer == nullptr || size <= 0) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_open(source, {package, section, option});
    if (!uci)
        return -1;
    if (uci_get_value(uci.get(), package, section, option, buffer, size) != 0) {
        LOG_DEBUG("uci_get_value %s.%s.%s error", package, section, option);
        return -1;
    }
    return 0;
}

// The profile is read only: what is written goes to the system's configuration.
static uint32_t system_or_backup(uint32_t source) {
    return source == TELEMETRY_UCI_BACKUP ? TELEMETRY_UCI_BACKUP : TELEMETRY_UCI_SYSTEM;
}

int telemetry_set_uci_value(const char *package, const char *section, const char *option, const char *value,
                            uint32_t source) {
    if (value == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_open(system_or_backup(source), {package, section, option});
    if (!uci)
        return -1;
    if (uci_set_value(uci.get(), package, section, option, value, 1) != 0) {
        LOG_DEBUG("uci_set_value [%s] error", value);
        return -1;
    }
    return 0;
}

int telemetry_get_uci_enabled_value(const char *package, const char *section, const char *option,
                                    uint32_t source) {
    const TelemetryUciPtr uci = telemetry_uci_open(system_or_backup(source), {package, section, option});
    if (!uci)
        return 0;
    char value[kEnabledSize];
    if (uci_get_value(uci.get(), package, section, option, value, kEnabledSize) != 0) {
        LOG_ERROR("uci_get_value enabled error");
        return 0;
    }
    for (const char *on : {"on", "1", "true"}) {
        if (strcmp(value, on) == 0)
            return 1;
    }
    for (const char *off : {"off", "0", "false"}) {
        if (strcmp(value, off) == 0)
            return 0;
    }
    LOG_ERROR("value enabled error");
    return 0;
}

int telemetry_set_uci_value_in_telemetry_config(const char *section, const char *option, const char *value) {
    if (value == nullptr) {
        LOG_ERROR("param error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_open(TELEMETRY_UCI_SYSTEM, {section, option});
    if (!uci)
        return -1;
    return _telemetry_set_value_in_telemetry_config_with_create(uci.get(), kConfigPackage, section, option,
                                                                value);
}

int telemetry_traverse_config_section_and_do(const char *package, TelemetrySectionCallback callback,
                                             void *user) {
    if (is_empty(package) || callback == nullptr) {
        LOG_ERROR("params error");
        return -1;
    }
    const TelemetryUciPtr uci = telemetry_uci_context(TELEMETRY_UCI_SYSTEM);
    if (!uci) {
        LOG_ERROR("alloc context get failed");
        return -1;
    }
    const LoadedPackage loaded(uci.get(), package);
    if (loaded.get() == nullptr) {
        LOG_ERROR("load uci package failed.");
        return -1;
    }
    uci_element *section = nullptr;
    uci_foreach_element(&loaded.get()->sections, section) callback(user, uci.get(), section);
    return 0;
}
