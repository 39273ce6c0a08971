// Scans a project description: strings and comments, brackets, keys. One pass; pure.
#include "client/description/limits.h"

#include <algorithm>
#include <string_view>

namespace voq
{

namespace
{

using Stop = Remark;  // ends the scan

class Scan
{
public:
    explicit Scan(std::string_view text) : text_(text) {}

    void Run()
    {
        while (at_ < text_.size()) Step(text_[at_]);
    }

private:
    [[noreturn]] void Fail(const std::string& text) const { throw Stop{line_, true, text}; }

    void Step(char c)
    {
        if (c == '"' || c == '\'') return String(c);
        if (c == '#') return Comment();
        if (std::string_view(" \t\r\n=,[]{}.").find(c) == std::string_view::npos) return Word();
        if (c == '\n') Newline();
        if (c == '[' && depth_ == 0 && inKey_) return Header();
        if (c == '[' || c == '{') Open(c);
        if (c == ']' || c == '}') Close();
        if (c == ',') inKey_ = depth_ != 0 && open_[depth_ - 1] == '{';
        if (c == '=') inKey_ = false;
        if (c == '.' && inKey_)
            Fail("a dotted key; tables are written as [[port]], [[station]], [[block]] and [[register]]");
        ++at_;
    }

    void Newline()
    {
        ++line_;
        if (depth_ == 0) inKey_ = true;
    }

    void Open(char c)
    {
        if (depth_ == MaxNesting) Fail("more than " + std::to_string(MaxNesting) + " brackets within each other");
        open_[depth_++] = c;
        inKey_ = c == '{';
    }

    void Close()
    {
        if (depth_ != 0) --depth_;
        inKey_ = false;
    }

    void Comment() { at_ = std::min(text_.find('\n', at_), text_.size()); }

    void Word()
    {
        const std::size_t end = std::min(text_.find_first_of(" \t\r\n=,[]{}.\"'#", at_), text_.size());
        Limit(end - at_);
        at_ = end;
    }

    void Limit(std::size_t length) const
    {
        if (length <= MaxTextBytes) return;
        Fail("a text of " + std::to_string(length) + " bytes; the limit is " + std::to_string(MaxTextBytes));
    }

    // One that has no end is left to the parser, which stops there.
    void String(char quote)
    {
        const bool lines = text_.substr(at_, 3) == std::string(3, quote);
        const std::size_t begin = at_ + (lines ? 3 : 1);
        for (at_ = begin; at_ < text_.size(); ++at_) {
            const char c = text_[at_];
            if (c == '\n' && !lines) break;
            if (c == '\n') ++line_;
            if (c == '\\' && quote == '"') {
                SkipEscaped();
            } else if (c == quote && (!lines || text_.substr(at_, 3) == std::string(3, quote))) {
                break;
            }
        }
        Limit(std::min(at_, text_.size()) - begin);
        if (at_ >= text_.size() || text_[at_] == '\n') return;
        // Up to two more quotes belong to a string of several lines.
        for (int quotes = lines ? 5 : 1; quotes > 0 && at_ < text_.size() && text_[at_] == quote; --quotes) ++at_;
    }

    void SkipEscaped()
    {
        if (at_ + 1 < text_.size() && text_[at_ + 1] != '\n') ++at_;
    }

    // A single [port] goes to the parser, whose reader says how it is written.
    void Header()
    {
        const std::size_t end = std::min(text_.find_first_of("#\n", at_), text_.size());
        const std::string_view line = text_.substr(at_, end - at_);
        const std::size_t closed = std::min(line.find_last_of(']'), line.size());
        std::string name;
        for (const char c : line.substr(0, closed)) {
            if (c != ' ' && c != '\t' && c != '[') name += c;
            if (name.size() > MaxTextBytes) Limit(closed);
        }
        if (!name.empty() && name.back() == ']') name.pop_back();
        if (name != "port" && name != "station" && name != "block" && name != "register") {
            Fail("[" + name + "] is unknown: a description has [[port]], [[station]], [[block]] and [[register]]");
        }
        at_ = end;
        inKey_ = false;
    }

    std::string_view text_;
    std::size_t at_ = 0, line_ = 1, depth_ = 0;
    char open_[MaxNesting] = {};
    bool inKey_ = true;  // what comes next is a key or a table's head
};

}  // namespace

bool WithinDescriptionLimits(const std::string& text, Remarks& remarks)
{
    if (text.size() > MaxDescriptionBytes) {
        remarks.Error(0,
                      "longer than a project description's limit of " + std::to_string(MaxDescriptionBytes) + " bytes");
        return false;
    }
    try {
        Scan(text).Run();
        return true;
    } catch (const Stop& stop) {
        remarks.Error(stop.line, stop.text);
        return false;
    }
}

}  // namespace voq
