// Texts that name a place: "package.section.option=value".
#include "uci_internal.h"

#include <cstring>

namespace ucilib {

namespace {

// Ends text at the mark; what follows it, or null.
char *cut(char *text, char mark) {
    char *found = text ? strchr(text, mark) : nullptr;
    if (found)
        *found++ = '\0';
    return found;
}

} // namespace

bool split_place(uci_ptr *ptr, char *text) {
    memset(ptr, 0, sizeof(*ptr));
    ptr->value = cut(text, '=');
    char *section = cut(text, '.');
    ptr->option = cut(section, '.');
    ptr->package = text;
    ptr->section = section;
    ptr->target = ptr->option ? UCI_TYPE_OPTION : section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    if (section && !valid_name(section))
        ptr->flags = uci_ptr::UCI_LOOKUP_EXTENDED;
    // Which packages there are is for the load to say.
    return valid_type(text) && (!ptr->option || valid_name(ptr->option)) &&
           (!ptr->value || valid_value(ptr->value));
}

} // namespace ucilib
