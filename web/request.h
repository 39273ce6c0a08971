// Which requests are taken, and what they ask for. Pure; nothing but texts that anybody may have sent comes in here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace voq::web
{

inline constexpr std::size_t MaxBodyBytes = 4096;

// Who may ask under which names.
struct Access {
    std::vector<std::string> hosts;  // names that a browser may use for this server, without a port
    bool writes = false;
    std::string token;  // that a write must show; never empty with `writes`
};

struct Request {
    std::string_view method, path;
    // Headers; no data when there was none.
    std::string_view host, origin, fetchSite, contentLength, transferEncoding, token;
    bool hasHost = false;
    bool repeated = false;  // one of them is there twice
};

enum class Resource : std::uint8_t {
    Page,
    Script,
    Style,
    Icon,
    Ports,
    Ranges,
    Events,
    Metrics,
    History,
    Explain,
    Write
};

// What is to be done with a request: status 200 and a resource, or a refusal with its reason.
struct Verdict {
    unsigned status = 200;
    Resource resource = Resource::Page;
    std::string_view reason = {};  // of a refusal
};

// A request is refused when it names a host that is not this server (a page elsewhere whose name was made to lead
// here), when a page of another origin sent it, when its body is too long, or when it would write without the token.
Verdict Judge(const Request& request, const Access& access);

// The number of a range in a query; nothing when it is none.
std::optional<std::uint32_t> ParseId(std::string_view text);

// The values of a write, one a line; the last line's end may be missing.
std::vector<std::string> ParseValues(std::string_view body);

// Equal texts, in a time that does not tell how much of them is.
bool SameSecret(std::string_view a, std::string_view b);

}  // namespace voq::web
