// The connection, on libmosquitto: one handle for each connection, since the will is another one each time and a handle
// that reconnects by itself keeps the old one. The thread makes the handle, runs its loop and ends it; the caller only
// queues packets, under the lock. The library calls back on the thread, never from within a call of the caller's.
#include "upstream/mqtt/link.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <random>
#include <thread>

#include "client/error.h"
#include "upstream/mqtt/reasons.h"

namespace voq::mqtt
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t MaxPayload = 64 * 1024;  // of what arrives: commands, far below
constexpr std::size_t MaxTopic = 65535;        // MQTT's own
constexpr std::size_t MaxArrived = 256;        // that wait for the caller: 16 MiB at the very most
constexpr std::size_t MaxInFlight = 8192;      // where the broker sets no limit
// Packet identifiers have 16 bits and come again: none may while an old one is unanswered.
constexpr std::uint64_t MaxAhead = 60000;
constexpr milliseconds AnswerWithin{15000};
constexpr milliseconds Brief{10000};
constexpr milliseconds GoodbyeWithin{1000};
constexpr milliseconds EndWithin{1500};
constexpr int LoopMs = 500;  // how late a time limit may be noticed
constexpr int Refused = 0x80;
constexpr const char* SystemAuthorities = "/etc/ssl/certs";

struct Handle {
    explicit Handle(const std::string& id, void* of) : mosq(mosquitto_new(id.c_str(), true, of))
    {
        if (mosq == nullptr) throw Error("the MQTT library makes no client of \"" + id + "\"");
    }
    ~Handle() { mosquitto_destroy(mosq); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    mosquitto* mosq;
};

void Check(int result, const char* what)
{
    if (result == MOSQ_ERR_SUCCESS) return;
    throw Error(std::string(what) + ": " +
                (result == MOSQ_ERR_ERRNO ? std::system_category().message(errno) : mosquitto_strerror(result)));
}

const char* OrNull(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

// A key with a passphrase is an error, no question at a terminal.
int NoPassphrase(char*, int, int, void*)
{
    return 0;
}

void SetUp(mosquitto* mosq, const BrokerSettings& broker)
{
    Check(mosquitto_threaded_set(mosq, true), "threads");
    Check(mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, broker.version), "protocol");
    Check(mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
    Check(mosquitto_max_inflight_messages_set(mosq, 0), "messages in flight");
    if (!broker.user.empty()) {
        Check(mosquitto_username_pw_set(mosq, broker.user.c_str(), OrNull(broker.password)), "user");
    }
    if (broker.tls) {
        Check(mosquitto_tls_set(mosq, OrNull(broker.ca), broker.ca.empty() ? SystemAuthorities : nullptr,
                                OrNull(broker.certificate), OrNull(broker.key), NoPassphrase),
              "TLS: ca, certificate or key");
    }
}

// Why it is not connected. The library's early try at TLS may have taken the error away.
int SocketError(int socket)
{
    int error = 0;
    socklen_t length = sizeof error;
    const bool known = getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error != 0;
    return known ? error : ECONNREFUSED;
}

long VerifyResult(mosquitto* mosq)
{
    const auto* ssl = static_cast<const SSL*>(mosquitto_ssl_get(mosq));
    return ssl == nullptr ? X509_V_OK : SSL_get_verify_result(ssl);
}

// A broker of MQTT 5 is told to send nothing larger than what is taken. Only the library's blocking call takes
// properties; refused for its keep-alive, it has noted them and done nothing else.
void LimitPackets(mosquitto* mosq)
{
    mosquitto_property* properties = nullptr;
    const auto limit = static_cast<std::uint32_t>(MaxPayload + MaxTopic);
    if (mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, limit) != MOSQ_ERR_SUCCESS) return;
    constexpr int refusedKeepalive = 1;
    mosquitto_connect_bind_v5(mosq, "", 1, refusedKeepalive, nullptr, properties);
    mosquitto_property_free_all(&properties);
}

}  // namespace

class Link::Inner
{
public:
    explicit Inner(const BrokerSettings& broker) : broker_(broker), descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
        static const int library = mosquitto_lib_init();
        Check(library, "the MQTT library");
        if (descriptor_ < 0) throw SystemError("eventfd", errno);
        try {
            SetUp(Handle(broker.clientId, nullptr).mosq, broker);
        } catch (...) {
            close(descriptor_);
            throw;
        }
    }
    ~Inner() { close(descriptor_); }
    Inner(const Inner&) = delete;
    Inner& operator=(const Inner&) = delete;

    static void Start(const std::shared_ptr<Inner>& inner)
    {
        // Signals are the main thread's.
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        inner->thread_ = std::thread([inner] { inner->Run(); });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    void End()
    {
        std::unique_lock lock(mutex_);
        quit_ = true;
        if (closing_ != Closing::Orderly) Cut();
        changed_.notify_all();
        if (!changed_.wait_for(lock, EndWithin, [&] { return ended_; })) Cut();
        const bool ended = changed_.wait_for(lock, milliseconds(2 * LoopMs / 3), [&] { return ended_; });
        lock.unlock();
        ended ? thread_.join() : thread_.detach();
    }

    void Connect(const Message& will)
    {
        const std::lock_guard lock(mutex_);
        will_ = will;
        closing_ = Closing::No;
        wanted_ = true;
        changed_.notify_all();
    }

    void Close(bool withWill)
    {
        const std::lock_guard lock(mutex_);
        if (closing_ != Closing::No) return;
        closing_ = up_ ? Closing::Orderly : Closing::Abrupt;
        withWill_ = withWill;
        goodbyeAt_ = Clock::now() + GoodbyeWithin;
        closing_ == Closing::Orderly ? SayGoodbye() : Cut();
        changed_.notify_all();
    }

    int Descriptor() const { return descriptor_; }

    std::optional<LinkEvent> Next()
    {
        const std::lock_guard lock(mutex_);
        if (events_.empty()) return std::nullopt;
        LinkEvent event = std::move(events_.front());
        events_.pop_front();
        if (event.type == LinkEvent::Type::Arrived) --arrived_;
        std::uint64_t count = 0;
        if (events_.empty() && read(descriptor_, &count, sizeof count) < 0) return event;
        return event;
    }

    std::optional<int> Send(Message&& message, std::optional<int> options)
    {
        const std::lock_guard lock(mutex_);
        if (!up_ || closing_ != Closing::No) return std::nullopt;
        Outgoing out{std::move(message), options, 0};
        if (out.message.qos > 0 || options) out.number = NextNumber();
        const int number = out.number;
        waiting_.empty() && MayGo(out) ? Hand(out) : waiting_.push_back(std::move(out));
        return number;
    }

    Figures Counted() const
    {
        const std::lock_guard lock(mutex_);
        return figures_;
    }

private:
    enum class Closing { No, Orderly, Abrupt };
    struct Outgoing {
        Message message;             // of a subscription: the filter and its QoS
        std::optional<int> options;  // of a subscription
        int number;
    };
    struct InFlight {
        int identifier, number;
        std::uint64_t place;  // among all that was sent
        bool limited;         // counts for the broker's limit
        std::string topic;
    };

    // The thread.

    void Run()
    {
        std::unique_lock lock(mutex_);
        while (!quit_) {
            changed_.wait(lock, [&] { return wanted_ || quit_; });
            if (!wanted_) break;
            wanted_ = false;
            Pause(lock);
            std::string reason;
            if (!quit_ && closing_ == Closing::No) {
                lock.unlock();
                reason = Connection();
                lock.lock();
            }
            Tell({LinkEvent::Type::Down, {}, 0, closing_ == Closing::No ? reason : ""});
        }
        ended_ = true;
        changed_.notify_all();
    }

    // Before the attempt, by what became of the last one.
    void Pause(std::unique_lock<std::mutex>& lock)
    {
        if (pause_.count() == 0) return;
        std::uniform_int_distribution<std::int64_t> drawn(pause_.count() / 2, pause_.count());
        changed_.wait_for(lock, milliseconds(drawn(random_)), [&] { return quit_ || closing_ != Closing::No; });
    }

    // From the name to the end of the connection: why it ended.
    std::string Connection()
    {
        Clock::time_point upAt = Clock::time_point::max();
        Failure failure;
        try {
            auto handle = Opened(failure);
            if (handle && Reached(handle->mosq, failure)) upAt = Looped(handle->mosq, failure);
            Leave();
        } catch (const Error& error) {
            Leave();
            failure.told = error.what();
        }
        const std::lock_guard lock(mutex_);
        if (closing_ != Closing::No) return pause_ = milliseconds(0), "";
        failure.brief = upAt > Clock::now() - Brief;
        const bool lasted = upAt < Clock::now() - broker_.longestRetry;
        pause_ = lasted ? broker_.firstRetry : std::clamp(2 * pause_, broker_.firstRetry, broker_.longestRetry);
        if (failure.told.empty()) failure.told = told_;
        return ReasonText(broker_, failure);
    }

    // A handle that has begun to connect. The library tries the addresses of a name in turn, but only until one does
    // not fail at once; so the family of addresses that failed later is left out of the next attempt.
    std::unique_ptr<Handle> Opened(Failure& failure)
    {
        const char* const other = avoided_ == AF_INET6 ? "0.0.0.0" : avoided_ == AF_INET ? "::" : nullptr;
        if (other != nullptr) {
            if (auto handle = Begun(other, failure)) return handle;
        }
        return Begun(nullptr, failure);
    }

    std::unique_ptr<Handle> Begun(const char* from, Failure& failure)
    {
        auto handle = std::make_unique<Handle>(broker_.clientId, this);
        mosquitto* const mosq = handle->mosq;
        SetUp(mosq, broker_);
        if (broker_.version == MQTT_PROTOCOL_V5) LimitPackets(mosq);
        SetCallbacks(mosq);
        {
            const std::lock_guard lock(mutex_);
            told_.clear();
            Check(mosquitto_will_set(mosq, will_.topic.c_str(), static_cast<int>(will_.payload.size()),
                                     will_.payload.data(), will_.qos, will_.retain),
                  "will");
        }
        failure.result = mosquitto_connect_bind_async(mosq, broker_.host.c_str(), broker_.port,
                                                      static_cast<int>(broker_.keepalive.count()), from);
        failure.number = errno;
        if (failure.result != MOSQ_ERR_SUCCESS) return nullptr;
        const std::lock_guard lock(mutex_);
        grip_ = dup(mosquitto_socket(mosq));
        if (grip_ < 0) throw SystemError("socket", errno);
        answerAt_ = Clock::now() + AnswerWithin;
        if (quit_ || closing_ != Closing::No) Cut();
        return handle;
    }

    // The socket is connected. Before the library's loop: it takes no notice of a TLS connection that is not yet.
    bool Reached(mosquitto* mosq, Failure& failure)
    {
        pollfd socket{mosquitto_socket(mosq), POLLOUT, 0};
        int ready = 0;
        do {
            const auto left = std::chrono::ceil<milliseconds>(answerAt_ - Clock::now()).count();
            ready = poll(&socket, 1, static_cast<int>(std::max<std::int64_t>(left, 0)));
        } while (ready < 0 && errno == EINTR);
        sockaddr_storage own{}, peer{};
        socklen_t length = sizeof peer;
        if (ready > 0 && getpeername(socket.fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0) return true;
        failure.late = ready == 0;
        failure.result = MOSQ_ERR_ERRNO;
        failure.number = SocketError(socket.fd);
        length = sizeof own;
        if (getsockname(socket.fd, reinterpret_cast<sockaddr*>(&own), &length) == 0) avoided_ = own.ss_family;
        return false;
    }

    // Until the connection ends; since when it was one.
    Clock::time_point Looped(mosquitto* mosq, Failure& failure)
    {
        mosq_ = mosq;
        answer_ = -1;
        do {
            failure.result = mosquitto_loop(mosq, LoopMs, 1);
            failure.number = errno;
        } while (failure.result == MOSQ_ERR_SUCCESS && InTime(failure) && !BrokenHandshake(mosq));
        failure.certificate = VerifyResult(mosq);
        const std::lock_guard lock(mutex_);
        failure.stage = up_ ? Stage::Connected : Stage::Answer;
        failure.answer = answer_;
        return up_ ? upAt_ : Clock::time_point::max();
    }

    // The library would go on with a TLS handshake whose socket has failed, as fast as it can.
    static bool BrokenHandshake(mosquitto* mosq)
    {
        const auto* ssl = static_cast<const SSL*>(mosquitto_ssl_get(mosq));
        if (ssl == nullptr || SSL_is_init_finished(ssl)) return false;
        pollfd socket{mosquitto_socket(mosq), 0, 0};
        return poll(&socket, 1, 0) > 0;
    }

    bool InTime(Failure& failure)
    {
        const std::lock_guard lock(mutex_);
        const auto now = Clock::now();
        if (closing_ == Closing::Orderly) return now < goodbyeAt_ + milliseconds(LoopMs);
        if (quit_ || closing_ == Closing::Abrupt) return false;
        failure.late = !up_ && now >= answerAt_;
        return !failure.late;
    }

    // The caller has no handle from here on.
    void Leave()
    {
        const std::lock_guard lock(mutex_);
        Cut();
        if (grip_ >= 0) close(grip_);
        grip_ = -1;
        mosq_ = nullptr;
        up_ = false;
        waiting_.clear();
        inFlight_.clear();
        limited_ = 0;
    }

    void SetCallbacks(mosquitto* mosq)
    {
        mosquitto_log_callback_set(mosq, [](mosquitto*, void* of, int level, const char* text) {
            if (level == MOSQ_LOG_ERR) static_cast<Inner*>(of)->Logged(text);
        });
        mosquitto_connect_v5_callback_set(
            mosq, [](mosquitto* its, void* of, int answer, int, const mosquitto_property* properties) {
                // From here on it would have a line for each packet.
                if (answer == 0) mosquitto_log_callback_set(its, nullptr);
                static_cast<Inner*>(of)->Answered(answer, properties);
            });
        mosquitto_disconnect_v5_callback_set(mosq, [](mosquitto*, void* of, int answer, const mosquitto_property*) {
            if (answer >= Refused) static_cast<Inner*>(of)->answer_ = answer;
        });
        mosquitto_publish_v5_callback_set(
            mosq, [](mosquitto*, void* of, int identifier, int answer, const mosquitto_property*) {
                static_cast<Inner*>(of)->Acknowledged(identifier, answer);
            });
        mosquitto_subscribe_v5_callback_set(
            mosq, [](mosquitto*, void* of, int identifier, int count, const int* granted, const mosquitto_property*) {
                static_cast<Inner*>(of)->Acknowledged(identifier, count == 1 ? granted[0] : Refused);
            });
        mosquitto_message_v5_callback_set(
            mosq, [](mosquitto*, void* of, const mosquitto_message* message, const mosquitto_property*) {
                static_cast<Inner*>(of)->Arrived(*message);
            });
    }

    void Logged(const char* text)
    {
        if (told_.empty()) told_ = text;
    }

    void Answered(int answer, const mosquitto_property* properties)
    {
        const std::lock_guard lock(mutex_);
        if (answer != 0) return answer_ = answer, void();
        std::uint16_t most = 0;
        mosquitto_property_read_int16(properties, MQTT_PROP_RECEIVE_MAXIMUM, &most, false);
        mostLimited_ = most == 0 ? MaxInFlight : std::min<std::size_t>(most, MaxInFlight);
        ++figures_.connections;
        refusals_.reset();
        up_ = true;
        upAt_ = Clock::now();
        told_.clear();
        Tell({LinkEvent::Type::Up});
    }

    void Acknowledged(int identifier, int answer)
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::find_if(inFlight_.begin(), inFlight_.end(),
                                        [&](const InFlight& each) { return each.identifier == identifier; });
        if (found == inFlight_.end()) return;  // of QoS 0: written
        std::string reason;
        if (answer >= Refused) {
            const auto code = static_cast<std::uint8_t>(answer);
            if (!refusals_[code]) {
                reason = "the broker refuses \"" + found->topic + "\": " + mosquitto_reason_string(answer);
            }
            refusals_.set(code);
            ++figures_.refused;
        }
        if (found->limited) --limited_;
        Tell({LinkEvent::Type::Acknowledged, {}, found->number, std::move(reason)});
        inFlight_.erase(found);
        while (!waiting_.empty() && MayGo(waiting_.front())) {
            Hand(waiting_.front());
            waiting_.pop_front();
        }
        if (closing_ == Closing::Orderly) SayGoodbye();
    }

    void Arrived(const mosquitto_message& message)
    {
        const auto bytes = static_cast<std::size_t>(message.payloadlen);
        const std::lock_guard lock(mutex_);
        ++figures_.received;
        figures_.bytesReceived += std::char_traits<char>::length(message.topic) + bytes;
        if (bytes > MaxPayload || arrived_ >= MaxArrived) return ++figures_.lost, void();
        ++arrived_;
        Tell({LinkEvent::Type::Arrived,
              {message.topic, std::string(static_cast<const char*>(message.payload), bytes), message.qos,
               message.retain}});
    }

    // Either thread; the lock is held.

    void Tell(LinkEvent&& event)
    {
        events_.push_back(std::move(event));
        const std::uint64_t one = 1;
        if (events_.size() == 1 && write(descriptor_, &one, sizeof one) < 0) return;  // is readable already
    }

    int NextNumber() { return number_ = number_ == std::numeric_limits<int>::max() ? 1 : number_ + 1; }

    bool MayGo(const Outgoing& out) const
    {
        if (!inFlight_.empty() && place_ - inFlight_.front().place >= MaxAhead) return false;
        return out.options || out.message.qos == 0 || limited_ < mostLimited_;
    }

    void Hand(const Outgoing& out)
    {
        const Message& message = out.message;
        int identifier = 0;
        const int result =
            out.options
                ? mosquitto_subscribe_v5(mosq_, &identifier, message.topic.c_str(), message.qos, *out.options, nullptr)
                : mosquitto_publish(mosq_, &identifier, message.topic.c_str(), static_cast<int>(message.payload.size()),
                                    message.payload.data(), message.qos, message.retain);
        ++place_;
        if (!out.options) {
            ++figures_.sent;
            figures_.bytesSent += message.topic.size() + message.payload.size();
        }
        // Without a connection Down follows.
        if (result != MOSQ_ERR_SUCCESS && result != MOSQ_ERR_NO_CONN) {
            ++figures_.refused;
            if (out.number == 0) return;
            return Tell({LinkEvent::Type::Acknowledged,
                         {},
                         out.number,
                         "\"" + message.topic + "\" cannot be sent: " + mosquitto_strerror(result)});
        }
        if (out.number == 0) return;
        const bool limited = !out.options;
        limited_ += limited;
        inFlight_.push_back({identifier, out.number, place_, limited, message.topic});
    }

    void SayGoodbye()
    {
        if (!up_ || !inFlight_.empty() || !waiting_.empty()) return;
        const bool will = withWill_ && broker_.version == MQTT_PROTOCOL_V5;
        mosquitto_disconnect_v5(mosq_, will ? MQTT_RC_DISCONNECT_WITH_WILL_MSG : MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    }

    // Ends whatever the socket is at, without a word to the broker.
    void Cut()
    {
        if (grip_ >= 0) shutdown(grip_, SHUT_RDWR);
    }

    const BrokerSettings broker_;
    const int descriptor_;
    std::thread thread_;

    mutable std::mutex mutex_;  // of everything up to the next comment
    std::condition_variable changed_;
    bool wanted_ = false, quit_ = false, ended_ = false;
    Closing closing_ = Closing::No;
    bool withWill_ = false;
    Clock::time_point goodbyeAt_, upAt_;
    Message will_;
    bool up_ = false;
    int grip_ = -1;  // the socket, by a descriptor of our own: the library may close its own at any time
    mosquitto* mosq_ = nullptr;
    std::deque<Outgoing> waiting_;
    std::deque<InFlight> inFlight_;
    std::size_t limited_ = 0, mostLimited_ = 0;
    std::uint64_t place_ = 0;
    int number_ = 0;
    std::deque<LinkEvent> events_;
    std::size_t arrived_ = 0;
    std::bitset<256> refusals_;  // reasons of the broker that were told since the connection stands
    Figures figures_;

    // The thread's alone.
    milliseconds pause_{0};
    std::minstd_rand random_{std::random_device{}()};
    int avoided_ = AF_UNSPEC;
    int answer_ = -1;
    std::string told_;
    Clock::time_point answerAt_;
};

Link::Link(const BrokerSettings& settings) : inner_(std::make_shared<Inner>(settings))
{
    Inner::Start(inner_);
}
Link::~Link()
{
    inner_->End();
}
void Link::Connect(const Message& will)
{
    inner_->Connect(will);
}
void Link::Close(bool withWill)
{
    inner_->Close(withWill);
}
int Link::Descriptor() const
{
    return inner_->Descriptor();
}
std::optional<LinkEvent> Link::Next()
{
    return inner_->Next();
}
std::optional<int> Link::Publish(const Message& message)
{
    return inner_->Send(Message(message), std::nullopt);
}
Link::Figures Link::Counted() const
{
    return inner_->Counted();
}

std::optional<int> Link::Subscribe(const std::string& filter, int qos, bool kept)
{
    const int options =
        MQTT_SUB_OPT_RETAIN_AS_PUBLISHED | (kept ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS : MQTT_SUB_OPT_SEND_RETAIN_NEVER);
    return inner_->Send({filter, {}, qos, false}, options);
}

}  // namespace voq::mqtt
