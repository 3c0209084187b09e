// The text of a configuration file into packages. Strict: the first fault refuses the whole text.
#include "uci_internal.h"

#include <array>
#include <cstring>
#include <unordered_map>

namespace ucilib {

namespace {

class package_parser {
  public:
    package_parser(uci_context *ctx, line_source &source, const import_target &target)
        : ctx_(ctx), target_(target), reader_(source) {
        if (target_.merge)
            enter(target_.merge);
    }

    int run();

  private:
    struct statement {
        std::string_view word;
        void (package_parser::*run)();
    };
    static const statement statements[];

    void parse_line();
    std::string name_argument(bool required, bool package);
    void end_of_statement();
    void run_package();
    void run_config();
    void run_option();
    void run_list();
    uci_ptr option_arguments();
    void open_package(const std::string &name);
    void enter(uci_package *p);
    void change(int (*apply)(uci_ptr *), uci_ptr &place);
    int fault(const char *reason);
    int tell(int code);

    uci_context *ctx_;
    const import_target &target_;
    word_reader reader_;
    uci_package *package_ = nullptr;
    uci_section *section_ = nullptr;
    std::unordered_map<std::string_view, uci_section *> named_; // of package_; the first of each name
    std::string name_, value_;                                  // what an option's place points to
};

const package_parser::statement package_parser::statements[] = {
    {"package", &package_parser::run_package},
    {"config", &package_parser::run_config},
    {"option", &package_parser::run_option},
    {"list", &package_parser::run_list},
};

void package_parser::enter(uci_package *p) {
    package_ = p;
    section_ = nullptr;
    named_.clear();
    uci_element *e;
    uci_foreach_element(&p->sections, e) named_.try_emplace(e->name, uci_to_section(e));
}

void package_parser::open_package(const std::string &name) {
    for (const auto &p : target_.packages) {
        if (name == p->e.name)
            throw int{UCI_ERR_DUPLICATE};
    }
    target_.packages.push_back(package_new(ctx_, name));
    enter(target_.packages.back().get());
}

std::string package_parser::name_argument(bool required, bool package) {
    std::string name = reader_.word();
    if (required && name.empty())
        throw parse_fault{"insufficient arguments"};
    if (!name.empty() && !(package ? valid_package_name(name) : valid_name(name)))
        throw parse_fault{"invalid character in name field"};
    return name;
}

void package_parser::end_of_statement() {
    if (!reader_.word().empty() && (ctx_->flags & UCI_FLAG_STRICT))
        throw parse_fault{"too many arguments"};
}

void package_parser::run_package() {
    reader_.skip_command("package without name");
    const std::string name = name_argument(true, true);
    end_of_statement();
    if (!target_.single)
        open_package(name);
}

void package_parser::run_config() {
    if (!package_) {
        if (!target_.name)
            throw parse_fault{"attempting to import a file without a package name"};
        open_package(target_.name);
    }
    reader_.skip_command("config without name");
    const std::string type = reader_.word();
    if (type.empty())
        throw parse_fault{"insufficient arguments"};
    if (!valid_type(type))
        throw parse_fault{"invalid character in type field"};
    const std::string name = name_argument(false, false);
    end_of_statement();
    uci_ptr place{};
    place.p = package_;
    const auto found = named_.find(name);
    if (found != named_.end()) {
        place.s = found->second;
        if ((ctx_->flags & UCI_FLAG_STRICT) && type != place.s->type)
            throw parse_fault{"section of different type overwrites prior section with same name"};
    }
    place.section = name.empty() ? nullptr : name.c_str();
    place.value = type.c_str();
    // Not change_set: it looks through all sections once more.
    change(name.empty() ? change_add_section : change_set_type, place);
    section_ = place.s;
    named_.try_emplace(section_->e.name, section_);
}

// Reads an option's name and value: a place that is good until the next statement.
uci_ptr package_parser::option_arguments() {
    if (!section_)
        throw parse_fault{"option/list command found before the first section"};
    reader_.skip_command("option without name");
    name_ = name_argument(true, false);
    value_ = reader_.word();
    end_of_statement();
    uci_ptr place{};
    place.s = section_;
    place.section = section_->e.name;
    place.option = name_.c_str();
    place.value = value_.c_str();
    return place;
}

void package_parser::run_option() {
    uci_ptr place = option_arguments();
    if (!value_.empty()) // an empty value is none: what was there stays
        change(change_set, place);
}

void package_parser::run_list() {
    uci_ptr place = option_arguments();
    change(change_add_list, place);
}

void package_parser::change(int (*apply)(uci_ptr *), uci_ptr &place) {
    const int rc = apply(&place);
    if (rc == UCI_ERR_INVAL) // names and types are good: it is the number of elements
        throw parse_fault{"too many sections or options"};
    if (rc != UCI_OK)
        throw rc;
}

void package_parser::parse_line() {
    while (!reader_.at_end()) {
        const std::string_view word = reader_.command();
        const statement *found = nullptr;
        for (const auto &known : statements) {
            if (word == known.word || word == known.word.substr(0, 1))
                found = &known;
        }
        if (!found)
            throw parse_fault{"invalid command"};
        (this->*found->run)();
    }
}

int package_parser::fault(const char *reason) {
    ctx_->reason = reason;
    ctx_->line = reader_.line();
    ctx_->byte = static_cast<int>(reader_.byte());
    tell(UCI_ERR_PARSE);
    return ctx_->flags & UCI_FLAG_STRICT ? UCI_ERR_PARSE : UCI_OK;
}

int package_parser::tell(int code) {
    ctx_->err = code;
    if (ctx_->flags & UCI_FLAG_PERROR)
        uci_perror(ctx_, nullptr);
    return code;
}

int package_parser::run() {
    while (reader_.next_line()) {
        int rc = UCI_OK;
        try {
            parse_line();
        } catch (const parse_fault &found) {
            rc = fault(found.reason);
        } catch (int code) {
            rc = tell(code);
        }
        if (rc != UCI_OK)
            return rc;
    }
    if (!package_ && target_.name)
        open_package(target_.name);
    return UCI_OK;
}

} // namespace

int parse_packages(uci_context *ctx, line_source &source, const import_target &target) {
    try {
        return package_parser(ctx, source, target).run();
    } catch (int code) {
        return code;
    }
}

} // namespace ucilib

int uci_import(uci_context *ctx, FILE *stream, const char *name, uci_package **package, bool single) {
    using namespace ucilib;
    return guarded(ctx, [&] {
        if (!stream || (name && !valid_file_name(name)))
            return static_cast<int>(UCI_ERR_INVAL);
        std::vector<package_handle> packages;
        stream_source source(stream);
        uci_package *merge = package ? *package : nullptr;
        const int rc = parse_packages(ctx, source, {name, single, merge, packages});
        if (rc != UCI_OK)
            return rc;
        for (const auto &p : packages) {
            if (uci_lookup_package(ctx, p->e.name))
                return static_cast<int>(UCI_ERR_DUPLICATE);
        }
        for (auto &p : packages) {
            list_append(&ctx->root, &p->e.list);
            if (package)
                *package = p.get();
            static_cast<void>(p.release());
        }
        return static_cast<int>(ferror(stream) ? UCI_ERR_IO : UCI_OK);
    });
}
