// Judges requests.
#include "web/request.h"

#include <algorithm>
#include <charconv>

namespace voq::web
{

namespace
{

struct Place {
    std::string_view path;
    Resource resource;
};
constexpr Place Places[] = {
    {"/", Resource::Page},
    {"/page.js", Resource::Script},
    {"/page.css", Resource::Style},
    {"/icon.svg", Resource::Icon},
    {"/api/ports", Resource::Ports},
    {"/api/ranges", Resource::Ranges},
    {"/api/history", Resource::History},
    {"/api/explain", Resource::Explain},
    {"/api/write", Resource::Write},
    {"/events", Resource::Events},
    {"/metrics", Resource::Metrics},
};

template <typename Number>
std::optional<Number> Parsed(std::string_view text)
{
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

bool SameName(std::string_view a, std::string_view b)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

// "name", "name:port", "[::1]:port".
std::string_view NameOf(std::string_view host)
{
    const std::size_t from = host.starts_with('[') ? host.find(']') : 0;
    if (from == std::string_view::npos) return {};
    return host.substr(0, host.find(':', from));
}

bool OfThisServer(const Request& request, const Access& access)
{
    const std::string_view name = NameOf(request.host);
    return request.hasHost && std::any_of(access.hosts.begin(), access.hosts.end(),
                                          [&](const std::string& own) { return SameName(own, name); });
}

// A browser says where a request comes from whenever that is another place, or the request would change something.
bool OfThisOrigin(const Request& request)
{
    if (!request.fetchSite.empty() && request.fetchSite != "same-origin" && request.fetchSite != "none") return false;
    if (request.origin.empty()) return true;
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (request.origin.starts_with(scheme) && SameName(request.origin.substr(scheme.size()), request.host)) {
            return true;
        }
    }
    return false;
}

}  // namespace

Verdict Judge(const Request& request, const Access& access)
{
    if (request.repeated) return {400, {}, "a header is there twice"};
    if (!OfThisServer(request, access)) return {403, {}, "this server is not known by that name"};
    if (!OfThisOrigin(request)) return {403, {}, "asked for by a page of another origin"};
    const auto place = std::find_if(std::begin(Places), std::end(Places),
                                    [&](const Place& each) { return each.path == request.path; });
    if (place == std::end(Places)) return {404, {}, "there is no such resource"};
    const bool writing = place->resource == Resource::Write;
    if (writing && !access.writes) return {403, {}, "this server only reads"};
    if (writing ? request.method != "POST" : request.method != "GET" && request.method != "HEAD") {
        return {405, {}, "not with that method"};
    }
    if (!request.transferEncoding.empty()) return {411, {}, "a body needs its length"};
    const auto length =
        request.contentLength.empty() ? std::optional<std::uint64_t>(0) : Parsed<std::uint64_t>(request.contentLength);
    if (!length) return {400, {}, "no length of a body"};
    if (*length > (writing ? MaxBodyBytes : 0)) return {413, {}, "the body is too long"};
    if (writing && !SameSecret(request.token, access.token)) return {401, {}, "a write needs the token"};
    return {200, place->resource, {}};
}

std::optional<std::uint32_t> ParseId(std::string_view text)
{
    return Parsed<std::uint32_t>(text);
}

std::vector<std::string> ParseValues(std::string_view body)
{
    std::vector<std::string> values;
    while (!body.empty()) {
        const std::size_t end = std::min(body.find('\n'), body.size());
        std::string_view line = body.substr(0, end);
        if (line.ends_with('\r')) line.remove_suffix(1);
        values.emplace_back(line);
        body.remove_prefix(std::min(end + 1, body.size()));
    }
    return values;
}

bool SameSecret(std::string_view a, std::string_view b)
{
    unsigned difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const char other = b.empty() ? '\0' : b[i % b.size()];
        difference |= static_cast<unsigned>(static_cast<unsigned char>(a[i] ^ other));
    }
    return difference == 0;
}

}  // namespace voq::web
