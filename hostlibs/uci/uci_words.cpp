#include "uci_words.h"

#include "uci_internal.h"

#include <cstdlib>

namespace ucilib {

namespace {

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The part of a line that counts; true when it is a whole line.
bool append_up_to_zero(std::string &line, std::string_view raw) {
    raw = raw.substr(0, raw.find('\0'));
    line += raw;
    return !raw.empty() && raw.back() == '\n';
}

} // namespace

bool text_source::append_line(std::string &line) {
    while (pos_ < text_.size()) {
        const size_t newline = text_.find('\n', pos_);
        const size_t end = newline == std::string_view::npos ? text_.size() : newline + 1;
        const std::string_view raw = text_.substr(pos_, end - pos_);
        pos_ = end;
        // A line that a zero byte cuts has lost its newline too: the next one is appended.
        if (append_up_to_zero(line, raw) || raw[0] == '\0')
            return true;
    }
    return !line.empty();
}

stream_source::~stream_source() {
    free(raw_);
}

bool stream_source::append_line(std::string &line) {
    bool complete = false;
    while (!complete && line.size() <= max_file_size) {
        const ssize_t got = getline(&raw_, &raw_size_, stream_);
        if (got < 0 && !feof(stream_) && !ferror(stream_))
            throw std::bad_alloc();
        if (got <= 0)
            break;
        complete = append_up_to_zero(line, {raw_, static_cast<size_t>(got)}) || raw_[0] == '\0';
    }
    return complete || !line.empty();
}

bool word_reader::next_line() {
    buffer_.clear();
    pos_ = 0;
    if (!source_.append_line(buffer_))
        return false;
    line_ += !buffer_.empty() && buffer_.back() == '\n';
    return true;
}

// The statement goes on in the next line. False at the end of the text.
bool word_reader::more() {
    buffer_.resize(pos_ < buffer_.size() ? pos_ : buffer_.size());
    const size_t before = buffer_.size();
    source_.append_line(buffer_);
    line_ += buffer_.size() > before && buffer_.back() == '\n';
    return buffer_.size() > before;
}

void word_reader::end_line() {
    buffer_.resize(pos_);
}

// Takes a backslash. True when a byte follows that stands for itself; false when the line was joined with the
// next.
bool word_reader::take_escape() {
    pos_++;
    if (current() != '\n')
        return current() != '\0';
    more();
    return false;
}

void word_reader::skip_blanks() {
    while (is_blank(current()))
        pos_++;
}

bool word_reader::at_end() {
    skip_blanks();
    return current() == '\0' || current() == '#';
}

std::string_view word_reader::command() const {
    const std::string_view rest = std::string_view(buffer_).substr(pos_);
    return rest.substr(0, rest.find_first_of(" \t"));
}

void word_reader::skip_command(const char *missing) {
    const size_t end = pos_ + command().size();
    if (end == buffer_.size())
        throw parse_fault{missing};
    pos_ = end + 1;
}

void word_reader::take_quoted(char quote, std::string &word) {
    pos_++;
    for (char c; (c = current()) != quote;) {
        if (c == '\0') {
            if (!more())
                throw parse_fault{quote == '"' ? "EOF with unterminated \"" : "EOF with unterminated '"};
            continue;
        }
        if (c == '\\' && quote == '"' && !take_escape())
            continue;
        word += current();
        pos_++;
    }
    pos_++;
}

std::string word_reader::word() {
    skip_blanks();
    std::string word;
    if (current() == ';') {
        pos_++;
        return word;
    }
    const size_t start = pos_;
    bool semicolon = false;
    do {
        const char c = current();
        if (c == '\0')
            break;
        if (c == '#') {
            end_line();
            break;
        }
        if (c == ';') {
            semicolon = true;
            break;
        }
        if (c == '\'' || c == '"') {
            take_quoted(c, word);
            continue;
        }
        if (c == '\\' && !take_escape())
            continue;
        word += current();
        pos_++;
    } while (current() != '\0' && !is_blank(current()));
    if (!semicolon)
        pos_ += current() != '\0';
    else if (start + word.size() == pos_)
        end_line(); // directly behind a bare word the semicolon hides the rest of the line
    return word;
}

} // namespace ucilib
