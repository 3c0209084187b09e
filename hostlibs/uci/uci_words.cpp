// Words of a configuration text: bare, 'quoted' or "quoted" pieces, joined where they touch.
#include "uci_internal.h"

namespace ucilib {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

// The byte after a backslash, whatever it is.
bool take_escaped(word_reader &reader, std::string &word) {
    reader.pos++;
    if (reader.pos >= reader.text.size()) {
        reader.reason = "nothing after the backslash";
        return false;
    }
    char c = reader.text[reader.pos++];
    if (c == '\n')
        reader.line++;
    word += c;
    return true;
}

// A quoted piece, which may run over lines.
bool take_quoted(word_reader &reader, std::string &word) {
    const char quote = reader.text[reader.pos++];
    while (reader.pos < reader.text.size()) {
        char c = reader.text[reader.pos];
        if (c == quote) {
            reader.pos++;
            return true;
        }
        if (c == '\\' && quote == '"') {
            if (!take_escaped(reader, word))
                return false;
            continue;
        }
        if (c == '\n')
            reader.line++;
        word += c;
        reader.pos++;
    }
    reader.reason = quote == '"' ? "unterminated \"" : "unterminated '";
    return false;
}

} // namespace

void skip_line(word_reader &reader) {
    while (reader.pos < reader.text.size() && reader.text[reader.pos] != '\n')
        reader.pos++;
}

word_result next_word(word_reader &reader, std::string &word) {
    word.clear();
    while (reader.pos < reader.text.size() && is_blank(reader.text[reader.pos]))
        reader.pos++;
    bool any = false;
    while (reader.pos < reader.text.size()) {
        char c = reader.text[reader.pos];
        if (c == '\n' || is_blank(c))
            break;
        if (c == '#') {
            skip_line(reader);
            break;
        }
        any = true;
        if (c == '\'' || c == '"') {
            if (!take_quoted(reader, word))
                return word_result::error;
        } else if (c == '\\') {
            if (!take_escaped(reader, word))
                return word_result::error;
        } else {
            word += c;
            reader.pos++;
        }
    }
    return any ? word_result::word : word_result::end_of_line;
}

} // namespace ucilib
