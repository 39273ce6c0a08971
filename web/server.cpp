// Between libmicrohttpd and the content. The library owns the thread; a stream that has nothing to send is suspended,
// and resumed by whoever publishes.
#include "web/server.h"

#include <microhttpd.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>

#include "client/error.h"
#include "web/assets.h"

namespace voq::web
{

// A write, from its first byte to its answer.
struct Server::Call {
    std::string body;
    std::uint32_t id = 0;
    bool tooLong = false, begun = false;
    // What the writer leaves behind; it may outlive the call.
    struct Result {
        std::mutex mutex;
        bool there = false;
        unsigned status = 0;
        std::string text;
        MHD_Connection* suspended = nullptr;
    };
    std::shared_ptr<Result> result = std::make_shared<Result>();
};

namespace
{

constexpr std::size_t ConnectionMemory = 16 * 1024;  // headers of a request, and what is sent at once
constexpr std::size_t StreamBlock = 8 * 1024;
// The system keeps megabytes for a reader that takes nothing, and would hide for minutes that it does.
constexpr int SendBuffer = 32 * 1024;
constexpr std::size_t ThreadStack = 256 * 1024;

constexpr std::pair<const char*, const char*> Headers[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
     "form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

constexpr std::array DecisiveHeaders = {"Host", "Content-Length", "Transfer-Encoding", "Origin", "Voq-Token"};
using DecisiveCount = std::array<unsigned, DecisiveHeaders.size()>;

std::string_view Header(MHD_Connection* connection, const char* name)
{
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

void AddHeaders(MHD_Response* response, const char* type)
{
    for (const auto& [name, value] : Headers) MHD_add_response_header(response, name, value);
    MHD_add_response_header(response, "Content-Type", type);
}

MHD_Result OnRequest(void* server, MHD_Connection* connection, const char* url, const char* method, const char*,
                     const char* body, std::size_t* bodySize, void** call)
{
    // A callback from C: nothing may be thrown through it.
    try {
        return static_cast<Server*>(server)->Handle(connection, url, method, body, bodySize, call) != 0 ? MHD_YES
                                                                                                        : MHD_NO;
    } catch (const std::exception&) {
        return MHD_NO;
    }
}

char Marker;  // of a call that is seen for the first time and has no body to gather

int SocketOf(MHD_Connection* connection)
{
    return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
}

void OnConnection(void* server, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode what)
{
    static_cast<Server*>(server)->Connected(SocketOf(connection), what == MHD_CONNECTION_NOTIFY_STARTED);
}

void OnCompleted(void* server, MHD_Connection* connection, void** call, MHD_RequestTerminationCode)
{
    static_cast<Server*>(server)->Answered(SocketOf(connection));
    if (*call != &Marker) delete static_cast<Server::Call*>(*call);
    *call = nullptr;
}

struct Stream {
    MHD_Connection* connection;
    std::unique_ptr<Feed::Reader> reader;
};

ssize_t OnStream(void* cls, std::uint64_t, char* into, std::size_t length)
{
    auto& stream = *static_cast<Stream*>(cls);
    const auto copied = stream.reader->Copy(into, length, [&] { MHD_suspend_connection(stream.connection); });
    return copied.ended ? MHD_CONTENT_READER_END_OF_STREAM : static_cast<ssize_t>(copied.bytes);
}

void OnStreamEnd(void* cls)
{
    delete static_cast<Stream*>(cls);
}

MHD_Result CountDecisive(void* count, MHD_ValueKind, const char* name, const char*)
{
    for (std::size_t i = 0; i < DecisiveHeaders.size(); ++i) {
        if (strcasecmp(name, DecisiveHeaders[i]) == 0) ++(*static_cast<DecisiveCount*>(count))[i];
    }
    return MHD_YES;
}

// A header that decides twice is read by one program so and by another so, a proxy before this server for one.
bool HasRepeated(MHD_Connection* connection)
{
    DecisiveCount count = {};
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &CountDecisive, &count);
    return std::any_of(count.begin(), count.end(), [](unsigned times) { return times > 1; });
}

Request RequestOf(MHD_Connection* connection, const char* url, const char* method)
{
    const char* host = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Host");
    return {
        .method = method,
        .path = url,
        .host = host == nullptr ? "" : host,
        .origin = Header(connection, "Origin"),
        .fetchSite = Header(connection, "Sec-Fetch-Site"),
        .contentLength = Header(connection, "Content-Length"),
        .transferEncoding = Header(connection, "Transfer-Encoding"),
        .token = Header(connection, "Voq-Token"),
        .hasHost = host != nullptr,
        .repeated = HasRepeated(connection),
    };
}

std::optional<std::uint32_t> IdOf(MHD_Connection* connection)
{
    const char* id = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "id");
    return id == nullptr ? std::nullopt : ParseId(id);
}

}  // namespace

Server::Server(std::optional<int> listening, Access access, Content content, Feed& feed)
    : access_(std::move(access)), content_(std::move(content)), feed_(feed)
{
    const unsigned common = MHD_USE_SUSPEND_RESUME | MHD_USE_EPOLL;
    const unsigned flags = common | (listening ? MHD_USE_INTERNAL_POLLING_THREAD : MHD_USE_NO_LISTEN_SOCKET);
    const MHD_OptionItem socket[] = {
        {listening ? MHD_OPTION_LISTEN_SOCKET : MHD_OPTION_END, listening.value_or(-1), nullptr},
        {MHD_OPTION_END, 0, nullptr}};
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &OnRequest, this, MHD_OPTION_NOTIFY_COMPLETED, &OnCompleted,
                               this, MHD_OPTION_NOTIFY_CONNECTION, &OnConnection, this, MHD_OPTION_CONNECTION_LIMIT,
                               MaxConnections, MHD_OPTION_CONNECTION_TIMEOUT, IdleSeconds,
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, ConnectionMemory, MHD_OPTION_THREAD_STACK_SIZE,
                               ThreadStack, MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_ARRAY, socket, MHD_OPTION_END);
    if (daemon_ == nullptr) throw Error("the HTTP server does not start");
}

Server::~Server()
{
    MHD_stop_daemon(daemon_);
}

void Server::Connected(int connection, bool begins)
{
    if (!begins) return deadlines_.Forget(connection);
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &SendBuffer, sizeof SendBuffer);
    deadlines_.Begin(connection);
}

void Server::Serve(int connection)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (MHD_add_connection(daemon_, connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == MHD_YES) {
        Settle();
    }
}

void Server::Settle()
{
    constexpr int Rounds = 64;  // whatever comes: reading, answering and closing take a few
    for (int i = 0; i < Rounds; ++i) MHD_run(daemon_);
}

int Server::Answer(void* connection, unsigned status, const char* type, std::string_view text, bool keep)
{
    MHD_Response* response = MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()),
                                                             keep ? MHD_RESPMEM_PERSISTENT : MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    AddHeaders(response, type);
    if (status >= 400) MHD_add_response_header(response, "Connection", "close");
    const auto queued = MHD_queue_response(static_cast<MHD_Connection*>(connection), status, response);
    MHD_destroy_response(response);
    return queued;
}

int Server::Refuse(void* connection, const Verdict& verdict)
{
    ++refused_;
    return Answer(connection, verdict.status, "text/plain; charset=utf-8", std::string(verdict.reason) + "\n", false);
}

int Server::Handle(void* raw, const char* url, const char* method, const char* body, std::size_t* bodySize,
                   void** callPlace)
{
    auto* connection = static_cast<MHD_Connection*>(raw);
    if (*callPlace == nullptr) {
        ++requests_;
        const Verdict verdict = Judge(RequestOf(connection, url, method), access_);
        if (verdict.status != 200) return Refuse(connection, verdict);
        if (verdict.resource != Resource::Write) {
            *callPlace = &Marker;
            return MHD_YES;
        }
        const auto id = IdOf(connection);
        if (!id) return Refuse(connection, {400, {}, "which range?"});
        auto call = std::make_unique<Call>();
        call->id = *id;
        *callPlace = call.release();
        return MHD_YES;
    }
    if (*callPlace == &Marker) {
        if (*bodySize != 0) return MHD_NO;  // cannot be: no length was let through
        return Give(connection, Judge(RequestOf(connection, url, method), access_).resource);
    }
    Call& call = *static_cast<Call*>(*callPlace);
    if (*bodySize != 0) {
        call.tooLong = call.tooLong || call.body.size() + *bodySize > MaxBodyBytes;
        if (!call.tooLong) call.body.append(body, *bodySize);
        *bodySize = 0;
        return MHD_YES;
    }
    return GiveWritten(connection, call);
}

int Server::Give(void* raw, Resource resource)
{
    auto* connection = static_cast<MHD_Connection*>(raw);
    const auto json = [&](const std::string& text) {
        if (text.empty()) return Refuse(connection, {404, {}, "there is no such range"});
        return Answer(connection, 200, "application/json", text, false);
    };
    switch (resource) {
        case Resource::Page:
            return Answer(connection, 200, "text/html; charset=utf-8", PageHtml, true);
        case Resource::Script:
            return Answer(connection, 200, "text/javascript; charset=utf-8", PageScript, true);
        case Resource::Style:
            return Answer(connection, 200, "text/css; charset=utf-8", PageStyle, true);
        case Resource::Icon:
            return Answer(connection, 200, "image/svg+xml", PageIcon, true);
        case Resource::Ports:
            return json("{\"writes\":" + std::string(access_.writes ? "true" : "false") +
                        ",\"ports\":" + content_.ports() + "}");
        case Resource::Ranges:
            return json(content_.ranges());
        case Resource::History:
            return json(content_.history(IdOf(connection).value_or(0)));
        case Resource::Explain:
            return json(content_.explanation(IdOf(connection).value_or(0)));
        case Resource::Metrics:
            return Answer(connection, 200, "text/plain; version=0.0.4; charset=utf-8",
                          content_.metrics(requests_, refused_), false);
        default:
            return GiveStream(connection);
    }
}

int Server::GiveStream(void* raw)
{
    auto* connection = static_cast<MHD_Connection*>(raw);
    auto stream = std::make_unique<Stream>(Stream{connection, nullptr});
    stream->reader = feed_.Join("retry: 1000\n" + EventText("hello", 0, content_.hello()),
                                [connection] { MHD_resume_connection(connection); });
    if (!stream->reader) return Refuse(connection, {503, {}, "too many browsers listen already"});
    MHD_Response* response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, StreamBlock, &OnStream, stream.get(), &OnStreamEnd);
    if (response == nullptr) return MHD_NO;
    (void)stream.release();  // the response's now
    AddHeaders(response, "text/event-stream");
    MHD_add_response_header(response, "X-Accel-Buffering", "no");
    const auto queued = MHD_queue_response(connection, 200, response);
    MHD_destroy_response(response);
    deadlines_.Spare(SocketOf(connection));
    return queued;
}

int Server::GiveWritten(void* raw, Call& call)
{
    auto* connection = static_cast<MHD_Connection*>(raw);
    if (call.tooLong) return Refuse(connection, {413, {}, "the body is too long"});
    const std::shared_ptr<Call::Result> result = call.result;
    {
        const std::lock_guard lock(result->mutex);
        if (result->there) {
            return Answer(connection, result->status, "text/plain; charset=utf-8", result->text + "\n", false);
        }
        if (call.begun) return MHD_YES;
        call.begun = true;
        result->suspended = connection;
        MHD_suspend_connection(connection);
    }
    const auto done = [result](unsigned status, std::string text) {
        const std::lock_guard lock(result->mutex);
        result->there = true;
        result->status = status;
        result->text = std::move(text);
        MHD_resume_connection(result->suspended);
    };
    if (!content_.write(call.id, ParseValues(call.body), done)) done(503, "another write is under way");
    return MHD_YES;
}

}  // namespace voq::web
