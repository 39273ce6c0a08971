// What a description is found to have wrong, all of it, in the order of the file. Pure; one thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace voq
{

struct Remark {
    std::size_t line;  // 0: of no line
    bool error;        // else a warning: it works, but is surely not meant
    std::string text;

    bool operator==(const Remark&) const = default;
};

class Remarks
{
public:
    explicit Remarks(std::string file) : file_(std::move(file)) {}

    // The same remark twice counts once: a default's mistake is met by each register that takes it.
    void Error(std::size_t line, const std::string& text);
    void Warning(std::size_t line, const std::string& text);

    std::size_t Errors() const { return errors_; }
    const std::string& File() const { return file_; }
    // By line, those of one line in the order in which they were found.
    std::vector<Remark> InOrder() const;
    // "<file>:<line>: <text>", of a warning "<file>:<line>: warning: <text>".
    std::string Text(const Remark& remark) const;
    // Throws voq::Error with the text of the first error, if there is one.
    void ThrowFirst() const;

private:
    void Add(const Remark& remark);

    std::string file_;
    std::vector<Remark> remarks_;
    std::size_t errors_ = 0;
};

}  // namespace voq
