// Words of a text of lines: bare, 'quoted' or "quoted" pieces, joined where they touch.
#ifndef UCI_WORDS_H
#define UCI_WORDS_H

#include <cstdio>
#include <string>
#include <string_view>

namespace ucilib {

// Where lines come from.
class line_source {
  public:
    virtual ~line_source() = default;
    // Appends the next line with its newline up to the first zero byte. False at the end.
    virtual bool append_line(std::string &line) = 0;
};

class text_source : public line_source {
  public:
    explicit text_source(std::string_view text) : text_(text) {}
    bool append_line(std::string &line) override;
    size_t position() const {
        return pos_;
    }

  private:
    std::string_view text_;
    size_t pos_ = 0;
};

class stream_source : public line_source {
  public:
    explicit stream_source(FILE *stream) : stream_(stream) {}
    ~stream_source() override;
    stream_source(const stream_source &) = delete;
    stream_source &operator=(const stream_source &) = delete;
    bool append_line(std::string &line) override;

  private:
    FILE *stream_;
    char *raw_ = nullptr; // getline's
    size_t raw_size_ = 0;
};

// A fault in the text; what() of it goes into the context.
struct parse_fault {
    const char *reason;
};

// One statement may run over several lines: then the line grows behind what was read of it.
class word_reader {
  public:
    explicit word_reader(line_source &source) : source_(source) {}

    // Drops the rest of the line and takes the next one. False at the end of the text.
    bool next_line();
    // What is left of the line, blanks skipped, is nothing or a comment.
    bool at_end();
    // Nothing is left of the line, not even a blank.
    bool used_up() const {
        return current() == '\0';
    }
    // The first word of a statement, up to a blank, quotes and all. An empty view at the end of the line.
    std::string_view command() const;
    // Steps behind it. Throws `missing` when the text ends with it.
    void skip_command(const char *missing);
    // The next word; empty when there is none, be it for a semicolon, which is taken: it ends a statement.
    // Throws parse_fault for a quote that stays open.
    std::string word();

    int line() const {
        return line_;
    }
    size_t byte() const { // in the line as it has grown
        return pos_;
    }

  private:
    char current() const {
        return pos_ < buffer_.size() ? buffer_[pos_] : '\0';
    }
    bool more();
    void end_line();
    bool take_escape();
    void skip_blanks();
    void take_quoted(char quote, std::string &word);

    line_source &source_;
    std::string buffer_;
    size_t pos_ = 0;
    int line_ = 0;
};

} // namespace ucilib

#endif
