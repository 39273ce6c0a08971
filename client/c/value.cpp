// Values as numbers and as text, for C. Pure but for the noted error; used by the port's thread.
#include <limits>
#include <sstream>

#include "client/c/handles.h"
#include "client/numbers.h"
#include "client/value_text.h"
#include "voq/reg_range.h"

namespace
{

using voq::OnPort;
using voq::Require;

constexpr std::size_t AllElements = std::numeric_limits<std::size_t>::max();

void RequireCount(const voq_range& range, std::size_t count)
{
    Require(count == range.key.width, "not as many values as the range has elements");
}

std::vector<std::string> Words(const char* text)
{
    std::istringstream stream{std::string(text)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

int StoreText(const std::string& text, char* room, std::size_t size)
{
    if (size != 0) {
        const std::size_t kept = std::min(text.size(), size - 1);
        text.copy(room, kept);
        room[kept] = '\0';
    }
    return static_cast<int>(text.size());
}

}  // namespace

int voq_decode_doubles(const voq_range* range, const void* image, size_t length, double* values, size_t count)
{
    return OnPort(range->port, [&] {
        return static_cast<int>(voq::DecodeNumbers(voq::CodingOf(*range), voq::Span(image, length), {values, count}));
    });
}

int voq_decode_integers(const voq_range* range, const void* image, size_t length, int64_t* values, size_t count)
{
    return OnPort(range->port, [&] {
        return static_cast<int>(voq::DecodeIntegers(voq::CodingOf(*range), voq::Span(image, length), {values, count}));
    });
}

int voq_encode_doubles(const voq_range* range, const double* values, size_t count, void* image, size_t size)
{
    return OnPort(range->port, [&] {
        RequireCount(*range, count);
        return voq::StoreImage(voq::EncodeNumbers(voq::CodingOf(*range), {values, count}), image, size);
    });
}

int voq_encode_integers(const voq_range* range, const int64_t* values, size_t count, void* image, size_t size)
{
    return OnPort(range->port, [&] {
        RequireCount(*range, count);
        return voq::StoreImage(voq::EncodeIntegers(voq::CodingOf(*range), {values, count}), image, size);
    });
}

int voq_format(const voq_range* range, const void* image, size_t length, char* text, size_t size)
{
    return OnPort(range->port, [&] {
        return StoreText(voq::ValueText(voq::CodingOf(*range), voq::Span(image, length), AllElements), text, size);
    });
}

int voq_parse(const voq_range* range, const char* text, void* image, size_t size)
{
    return OnPort(range->port, [&] {
        const std::vector<std::string> words = Words(text);
        RequireCount(*range, words.size());
        return voq::StoreImage(voq::EncodeValues(voq::CodingOf(*range), words), image, size);
    });
}

int voq_show(const voq_range* range, const void* image, size_t length, char* text, size_t size)
{
    return OnPort(range->port, [&] {
        const auto value = voq::Span(image, length);
        return StoreText(voq::ScaledText(range->meaning, voq::CodingOf(*range), value, AllElements), text, size);
    });
}

int voq_enter(const voq_range* range, const char* text, void* image, size_t size)
{
    return OnPort(range->port, [&] {
        const bool whole = range->meaning.text != 0;
        const auto texts = whole ? std::vector<std::string>{text} : Words(text);
        const auto coding = voq::CodingOf(*range);
        return voq::StoreImage(voq::EncodeScaled(range->meaning, coding, range->key.width, texts), image, size);
    });
}
