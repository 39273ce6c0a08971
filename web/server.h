// The HTTP server: takes requests that Judge lets through and answers them from its content. One thread of its own; the
// sampling thread reaches it through the feed only.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "web/deadlines.h"
#include "web/feed.h"
#include "web/request.h"

struct MHD_Daemon;

namespace voq::web
{

// What is served. Every function is called on the server's thread and must not wait; an empty text means "there is
// none".
struct Content {
    std::function<std::string()> ranges, ports, hello;
    std::function<std::string(std::uint64_t requests, std::uint64_t refused)> metrics;
    std::function<std::string(std::uint32_t)> history, explanation;
    // Begins a write; `done` is called once, from any thread, with a status and a text. False: another one is under
    // way.
    using Done = std::function<void(unsigned status, std::string text)>;
    std::function<bool(std::uint32_t, std::vector<std::string>, Done)> write;
};

// Beyond it a connection is closed at once: as many streams as the feed has readers, and two dozen for the rest.
inline constexpr unsigned MaxConnections = Feed::MaxReaders + 24;
// A connection on which nothing moves for so long is closed; a reader that takes nothing, too.
inline constexpr unsigned IdleSeconds = 10;

class Server
{
public:
    // Serves what is accepted on a listening socket, which it takes over; without one only connections that Serve is
    // given. Throws Error.
    Server(std::optional<int> listening, Access access, Content content, Feed& feed);
    // The feed has ended and nothing is under way.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Ends connections that take too long, see Deadlines; to be called several times a second.
    void EndOverdue() { deadlines_.EndOverdue(); }

    // Without a listening socket: takes one connected socket over and serves it on this thread.
    void Serve(int connection);
    // Serves what there is on this thread until nothing moves.
    void Settle();

    struct Call;
    void Connected(int connection, bool begins);
    void Answered(int connection) { deadlines_.Begin(connection); }
    int Handle(void* connection, const char* url, const char* method, const char* body, std::size_t* bodySize,
               void** call);

private:
    int Answer(void* connection, unsigned status, const char* type, std::string_view text, bool keep);
    int Refuse(void* connection, const Verdict& verdict);
    int Give(void* connection, Resource resource);
    int GiveStream(void* connection);
    int GiveWritten(void* connection, Call& call);

    MHD_Daemon* daemon_ = nullptr;
    const Access access_;
    const Content content_;
    Feed& feed_;
    Deadlines deadlines_{MaxConnections};
    std::atomic<std::uint64_t> requests_ = 0, refused_ = 0;
};

// A socket that listens at "ADDRESS:PORT", "[ADDRESS]:PORT" or "unix:PATH"; a socket file in the way is replaced when
// nobody listens there. Throws Error.
int Listen(const std::string& where);

}  // namespace voq::web
