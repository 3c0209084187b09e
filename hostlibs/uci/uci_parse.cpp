// The text of a configuration file into packages. Strict: the first fault refuses the whole text.
#include "uci_internal.h"

#include <array>
#include <cstring>

namespace ucilib {

namespace {

struct parse_state {
    uci_context *ctx;
    std::vector<package_handle> &packages;
    bool single; // a package line changes nothing
    uci_package *package = nullptr;
    uci_section *section = nullptr;
    const char *reason = nullptr;
};

// One statement: its word, how many words follow at least and at most, and what it does with them.
struct statement {
    std::string_view word;
    size_t min_words;
    size_t max_words;
    bool (*run)(parse_state &state, const std::array<std::string, 2> &words);
};

bool refuse(parse_state &state, const char *reason) {
    state.reason = reason;
    return false;
}

bool run_package(parse_state &state, const std::array<std::string, 2> &words) {
    const std::string &name = words[0];
    if (!valid_package_name(name))
        return refuse(state, "invalid package name");
    if (state.single)
        return true;
    state.section = nullptr;
    for (auto &package : state.packages) {
        if (name == package->e.name) {
            state.package = package.get();
            return true;
        }
    }
    state.packages.push_back(package_new(state.ctx, name));
    state.package = state.packages.back().get();
    return true;
}

// A generated name that happens to be the same is no name in the file.
uci_section *find_named(uci_package *p, const std::string &name) {
    uci_element *e;
    uci_foreach_element(&p->sections, e) {
        auto *s = uci_to_section(e);
        if (!s->anonymous && name == e->name)
            return s;
    }
    return nullptr;
}

bool run_config(parse_state &state, const std::array<std::string, 2> &words) {
    const auto &[type, name] = words;
    if (!state.package)
        return refuse(state, "config before any package");
    if (!valid_type(type))
        return refuse(state, "invalid section type");
    if (!name.empty()) {
        if (!valid_name(name))
            return refuse(state, "invalid section name");
        state.section = find_named(state.package, name);
        if (state.section)
            return type == state.section->type || refuse(state, "section of another type has the same name");
    }
    state.section = section_new(state.package, type, name);
    return state.section || refuse(state, "too many sections");
}

// The named option of the section, made when it is missing.
uci_option *option_of(parse_state &state, const std::string &name, uci_option_type type) {
    auto *o = uci_lookup_option(state.ctx, state.section, name.c_str());
    if (!o && !(o = option_new(state.section, name, type)))
        state.reason = "too many options";
    return o;
}

bool check_option(parse_state &state, const std::string &name) {
    if (!state.section)
        return refuse(state, "option before any section");
    return valid_name(name) || refuse(state, "invalid option name");
}

bool run_option(parse_state &state, const std::array<std::string, 2> &words) {
    const auto &[name, value] = words;
    if (!check_option(state, name))
        return false;
    if (value.empty()) {
        if (auto *old = uci_lookup_option(state.ctx, state.section, name.c_str()))
            option_free(old);
        return true;
    }
    auto *o = option_of(state, name, UCI_TYPE_STRING);
    if (o)
        option_set_string(o, value);
    return o;
}

bool run_list(parse_state &state, const std::array<std::string, 2> &words) {
    const auto &[name, value] = words;
    if (!check_option(state, name))
        return false;
    auto *o = option_of(state, name, UCI_TYPE_LIST);
    if (o)
        option_add_item(o, value);
    return o;
}

constexpr statement statements[] = {
    {"package", 1, 1, run_package},
    {"config", 1, 2, run_config},
    {"option", 1, 2, run_option},
    {"list", 1, 2, run_list},
};

const statement *find_statement(const std::string &word) {
    for (const auto &candidate : statements) {
        if (word == candidate.word)
            return &candidate;
    }
    return nullptr;
}

// One line. False with state.reason or reader.reason on a fault.
bool parse_line(parse_state &state, word_reader &reader) {
    std::string word;
    switch (next_word(reader, word)) {
    case word_result::end_of_line:
        return true;
    case word_result::error:
        return false;
    case word_result::word:
        break;
    }
    const statement *found = find_statement(word);
    if (!found)
        return refuse(state, "invalid command");
    std::array<std::string, 2> words;
    size_t count = 0;
    for (;;) {
        auto result = next_word(reader, word);
        if (result == word_result::error)
            return false;
        if (result == word_result::end_of_line)
            break;
        if (count == found->max_words)
            return refuse(state, "too many arguments");
        words[count++].swap(word);
    }
    if (count < found->min_words)
        return refuse(state, "insufficient arguments");
    return found->run(state, words);
}

int parse_error(uci_context *ctx, const char *reason, int line) {
    ctx->reason = reason;
    ctx->line = line;
    return UCI_ERR_PARSE;
}

} // namespace

int parse_packages(uci_context *ctx, std::string_view text, std::string_view name, bool single,
                   std::vector<package_handle> &packages) {
    if (text.size() > max_file_size)
        return parse_error(ctx, "too large", 0);
    parse_state state{ctx, packages, single};
    if (!name.empty()) {
        packages.push_back(package_new(ctx, name));
        state.package = packages.back().get();
    }
    word_reader reader{text};
    const size_t end = text.find('\0');
    if (end != std::string_view::npos)
        reader.text = text.substr(0, end);
    while (reader.pos < reader.text.size()) {
        const int line = reader.line;
        if (!parse_line(state, reader))
            return parse_error(ctx, reader.reason ? reader.reason : state.reason, line);
        if (reader.pos < reader.text.size()) { // the newline
            reader.pos++;
            reader.line++;
        }
    }
    if (end != std::string_view::npos)
        return parse_error(ctx, "zero byte", reader.line);
    return UCI_OK;
}

} // namespace ucilib

int uci_import(uci_context *ctx, FILE *stream, const char *name, uci_package **package, bool single) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (package)
            *package = nullptr;
        if (!stream || (name && !valid_package_name(name)) || (single && !name))
            return static_cast<int>(UCI_ERR_INVAL);
        std::string text;
        char block[4096];
        for (size_t got; (got = fread(block, 1, sizeof(block), stream)) > 0;) {
            text.append(block, got);
            if (text.size() > max_file_size)
                break;
        }
        if (ferror(stream))
            return static_cast<int>(UCI_ERR_IO);
        std::vector<package_handle> packages;
        int rc = parse_packages(ctx, text, name ? name : std::string_view(), single, packages);
        if (rc != UCI_OK)
            return rc;
        for (const auto &p : packages) {
            if (uci_lookup_package(ctx, p->e.name))
                return static_cast<int>(UCI_ERR_DUPLICATE);
        }
        for (auto &p : packages) {
            p->has_delta = true;
            list_append(&ctx->root, &p->e.list);
            if (package)
                *package = p.get();
            p.release();
        }
        return static_cast<int>(UCI_OK);
    });
}
