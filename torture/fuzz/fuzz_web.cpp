// Arbitrary bytes on a connection of voq-web: through the HTTP library, the judging of requests, writes and streams,
// with content of a few bytes. First byte odd: the bytes follow a request line and headers that are let through.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "web/server.h"

namespace
{
using voq::web::Server;

std::string Text()
{
    return "{}";
}

bool Written(std::uint32_t id, std::vector<std::string> values, voq::web::Content::Done done)
{
    if (id % 2 == 0) return false;
    done(values.size() > 2 ? 422 : 200, values.empty() ? "" : values[0]);
    return true;
}

const voq::web::Content Small = {
    .ranges = Text,
    .ports = Text,
    .hello = Text,
    .metrics = [](std::uint64_t, std::uint64_t) { return Text(); },
    .history = [](std::uint32_t id) { return id == 1 ? Text() : ""; },
    .explanation = [](std::uint32_t id) { return id == 1 ? Text() : ""; },
    .write = Written,
};
constexpr char LetThrough[] = "POST /api/write?id=1 HTTP/1.1\r\nHost: localhost\r\nVoq-Token: 0123456789abcdef\r\n";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static voq::web::Feed feed;
    static Server server(std::nullopt, {{"localhost"}, true, "0123456789abcdef"}, Small, feed);
    int ends[2];
    if (size == 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return 0;
    std::string sent = data[0] % 2 != 0 ? LetThrough : "";
    sent.append(data + 1, data + size);
    if (write(ends[1], sent.data(), sent.size()) < 0) abort();
    shutdown(ends[1], SHUT_WR);
    server.Serve(ends[0]);
    feed.Publish("ranges", 1, "[]");  // wakes a stream
    close(ends[1]);
    feed.Ping();  // which then finds its other end gone
    server.Settle();
    return 0;
}
