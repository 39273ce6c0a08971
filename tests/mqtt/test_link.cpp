// The connection, against a real broker.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdlib>
#include <deque>
#include <vector>

#include "broker.h"
#include "folder.h"
#include "upstream/mqtt/link.h"

namespace voq::mqtt
{

namespace
{

using Clock = std::chrono::steady_clock;
using Type = LinkEvent::Type;
using std::chrono::milliseconds;
using std::chrono::seconds;

BrokerSettings At(std::uint16_t port, const std::string& id, int version = 5)
{
    BrokerSettings settings;
    settings.host = "localhost";
    settings.port = port;
    settings.version = version;
    settings.clientId = id;
    settings.firstRetry = milliseconds(20);
    settings.longestRetry = milliseconds(100);
    return settings;
}

// A link and what it told, in two rows: what arrived, and everything else.
struct Peer {
    explicit Peer(const BrokerSettings& settings) : link(settings) {}

    // The next event that is no message; of Type::Down when there is none for five seconds.
    LinkEvent Event()
    {
        const bool came = Wait([&] { return !events.empty(); });
        EXPECT_TRUE(came);
        if (!came) return {Type::Down, {}, 0, "no event"};
        LinkEvent event = events.front();
        events.pop_front();
        return event;
    }
    std::string Down()
    {
        LinkEvent event = Event();
        while (event.type != Type::Down) event = Event();
        return event.reason;
    }
    // Connected, however often it takes.
    void Up(const Message& will = {"will", "gone", 1, false})
    {
        for (int i = 0; i < 100; ++i) {
            link.Connect(will);
            if (Event().type == Type::Up) return;
        }
        ADD_FAILURE() << "no connection";
    }
    // Subscribed, and told so.
    void Subscribe(const std::string& filter, bool kept = false, int qos = 1)
    {
        const auto number = link.Subscribe(filter, qos, kept);
        const LinkEvent event = Event();
        EXPECT_EQ(event.type, Type::Acknowledged);
        EXPECT_EQ(event.number, number);
        EXPECT_EQ(event.reason, "");
    }
    Message Arrived()
    {
        if (!Wait([&] { return !arrived.empty(); })) return {"nothing", "", 0, false};
        Message message = arrived.front();
        arrived.pop_front();
        return message;
    }

    template <typename Condition>
    bool Wait(Condition condition)
    {
        for (const auto until = Clock::now() + seconds(5); !condition() && Clock::now() < until;) {
            pollfd descriptor{link.Descriptor(), POLLIN, 0};
            poll(&descriptor, 1, 100);
            while (auto event = link.Next()) {
                event->type == Type::Arrived ? arrived.push_back(event->message) : events.push_back(*event);
            }
        }
        return condition();
    }

    Link link;
    std::deque<LinkEvent> events;
    std::deque<Message> arrived;
};

constexpr const char* Open = "allow_anonymous true";

class LinkOf : public testing::TestWithParam<int>
{
protected:
    Folder folder_;
};

INSTANTIATE_TEST_SUITE_P(Versions, LinkOf, testing::Values(4, 5));

TEST_P(LinkOf, KeepsTheOrderOfWhatIsSentWhateverTheBrokerLimits)
{
    Broker broker(folder_.Path(), std::string(Open) + "\nmax_inflight_messages 3\nmax_queued_messages 0");
    Peer sender(At(broker.Port(), "sender", GetParam())), receiver(At(broker.Port(), "receiver", GetParam()));
    EXPECT_EQ(sender.link.Publish({"a", "too early", 0, false}), std::nullopt);
    receiver.Up();
    receiver.Subscribe("a/#", false, 0);  // of another QoS the broker would change the order
    sender.Up();
    std::vector<int> numbers;
    for (int i = 0; i < 240; ++i) {
        const auto number = i % 100 == 50 ? sender.link.Subscribe("b", 0)
                                          : sender.link.Publish({"a/b", std::to_string(i), i % 3 != 0, false});
        ASSERT_TRUE(number.has_value());
        if (*number != 0) numbers.push_back(*number);
    }
    for (const int number : numbers) ASSERT_EQ(sender.Event().number, number);
    for (int i = 0; i < 240; ++i) {
        if (i % 100 == 50) continue;
        ASSERT_EQ(receiver.Arrived().payload, std::to_string(i));
    }
    EXPECT_EQ(sender.link.Counted().sent, 238u);
    EXPECT_EQ(receiver.link.Counted().received, 238u);
}

TEST_P(LinkOf, WillIsOfThisConnectionAndOnlyForAnUncleanEnd)
{
    Broker broker(folder_.Path(), Open);
    Peer watcher(At(broker.Port(), "watcher", GetParam()));
    watcher.Up();
    watcher.Subscribe("#");
    auto box = std::make_unique<Peer>(At(broker.Port(), "box", GetParam()));
    box->Up({"box/state", "first", 1, false});
    box.reset();
    EXPECT_EQ(watcher.Arrived().payload, "first");
    box = std::make_unique<Peer>(At(broker.Port(), "box", GetParam()));
    box->Up({"box/state", "second", 1, false});
    for (int i = 0; i < 50; ++i) box->link.Publish({"box/state", "goodbye", 1, false});
    box->link.Close(false);
    EXPECT_EQ(box->link.Publish({"box/state", "too late", 0, false}), std::nullopt);
    EXPECT_EQ(box->Down(), "");
    for (int i = 0; i < 50; ++i) EXPECT_EQ(watcher.Arrived().payload, "goodbye");
    box->Up({"box/state", "third", 1, false});
    box->link.Close(true);
    EXPECT_EQ(box->Down(), "");
    box->Up({"box/state", "fourth", 1, false});
    box.reset();
    if (GetParam() == 5) {  // 3.1.1 has no such goodbye
        EXPECT_EQ(watcher.Arrived().payload, "third");
    }
    EXPECT_EQ(watcher.Arrived().payload, "fourth");
}

TEST_P(LinkOf, TellsWhatTheBrokerHadKept)
{
    Broker broker(folder_.Path(), Open);
    Peer sender(At(broker.Port(), "sender", GetParam())), receiver(At(broker.Port(), "receiver", GetParam()));
    sender.Up();
    sender.link.Publish({"kept", "old", 1, true});
    sender.Event();
    receiver.Up();
    receiver.Subscribe("kept", GetParam() == 5);  // 3.1.1 cannot ask
    const Message old = receiver.Arrived();
    EXPECT_EQ(old.payload, "old");
    EXPECT_TRUE(old.retain);
    receiver.Subscribe("kept");
    sender.link.Publish({"kept", "new", 1, false});
    const Message next = receiver.Arrived();
    EXPECT_EQ(next.payload, GetParam() == 5 ? "new" : "old");
    EXPECT_EQ(next.retain, GetParam() != 5);
}

TEST_P(LinkOf, ComesBackWhenTheBrokerDoes)
{
    Broker broker(folder_.Path(), Open);
    Peer peer(At(broker.Port(), "box", GetParam()));
    peer.Up();
    broker.Stop();
    EXPECT_NE(peer.Down(), "");
    EXPECT_EQ(peer.link.Publish({"a", "", 0, false}), std::nullopt);
    peer.link.Connect({"will", "", 0, false});
    EXPECT_EQ(peer.Down(),
              "connection refused: does a broker listen at localhost:" + std::to_string(broker.Port()) + "?");
    broker.Start();
    peer.Up();
    EXPECT_EQ(peer.link.Counted().connections, 2u);
}

TEST_P(LinkOf, TakesNothingTooLargeAndNotTooMuch)
{
    Broker broker(folder_.Path(), Open);
    Peer sender(At(broker.Port(), "sender", GetParam())), receiver(At(broker.Port(), "receiver", GetParam()));
    receiver.Up();
    receiver.Subscribe("#");
    sender.Up();
    // A broker of MQTT 5 keeps it back, since it was told to.
    sender.link.Publish({"large", std::string(200000, 'x'), 1, false});
    for (int i = 0; i < 300; ++i) sender.link.Publish({"many", std::to_string(i), 1, false});
    const std::uint64_t came = GetParam() == 5 ? 300 : 301;
    for (int i = 0; i < 500 && receiver.link.Counted().received < came; ++i) usleep(10000);
    EXPECT_EQ(receiver.link.Counted().received, came);
    EXPECT_EQ(receiver.link.Counted().lost, came - 256);
    EXPECT_EQ(receiver.Arrived().payload, "0");
    // A message that the library refuses is done with, and holds up nothing.
    const auto wrong = sender.link.Publish({"not/#/so", "", 1, false});
    LinkEvent event = sender.Event();
    while (event.number != wrong && event.type == Type::Acknowledged) event = sender.Event();
    EXPECT_NE(event.reason, "");
    EXPECT_NE(event.type, Type::Down);
    EXPECT_EQ(sender.link.Counted().refused, 1u);
}

TEST(Link, SaysWhyTheBrokerRefuses)
{
    Folder folder;
    Broker broker(folder.Path(), "allow_anonymous false");
    BrokerSettings settings = At(broker.Port(), "box");
    settings.user = "somebody";
    Peer peer(settings);
    std::string reason;
    for (int i = 0; i < 100 && reason.find("refuses user") == std::string::npos; ++i) {
        peer.link.Connect({"will", "", 0, false});
        reason = peer.Down();
    }
    EXPECT_EQ(reason, "the broker refuses user or password");

    Broker open(folder.Path(), Open);
    Peer first(At(open.Port(), "same")), second(At(open.Port(), "same"));
    first.Up();
    second.Up();
    EXPECT_NE(first.Down().find("is the same `client_id`, or box name, used twice?"), std::string::npos);
}

// Something that takes connections and says nothing.
TEST(Link, EndsSoonWhateverHangs)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(listener, 5), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    for (const bool tls : {false, true}) {
        BrokerSettings settings = At(ntohs(address.sin_port), "box");
        settings.tls = tls;
        Peer peer(settings);
        peer.link.Connect({"will", "", 0, false});
        close(accept(listener, nullptr, nullptr));
        const std::string reason = peer.Down();
        EXPECT_NE(reason.find(tls ? "port for TLS" : "port without TLS"), std::string::npos) << reason;
        peer.link.Connect({"will", "", 0, false});
        const int held = accept(listener, nullptr, nullptr);
        const auto before = Clock::now();
        peer.link.Close(true);
        EXPECT_EQ(peer.Down(), "");
        peer.link.Connect({"will", "", 0, false});
        const int other = accept(listener, nullptr, nullptr);
        auto unwanted = std::make_unique<Link>(settings);
        unwanted->Connect({"will", "", 0, false});
        unwanted.reset();
        EXPECT_LT(Clock::now() - before, seconds(2));
        close(held);
        close(other);
    }
    close(listener);
}

class Tls : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string script =
            "cd " + folder_.Path() +
            " && ec='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2' && exec 2>/dev/null &&"
            " for ca in ca other; do openssl req -x509 $ec -subj /CN=$ca -keyout $ca.key -out $ca.pem || exit 1; done "
            "&&"
            " for name in localhost elsewhere box; do"
            " openssl req $ec -subj /CN=$name -keyout $name.key -out $name.csr &&"
            " openssl x509 -req -days 2 -in $name.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out $name.pem || exit "
            "1;"
            " done";
        ASSERT_EQ(std::system(script.c_str()), 0);
    }

    std::string Server(const std::string& name) const
    {
        const std::string path = folder_.Path() + "/";
        return std::string(Open) + "\ncafile " + path + "ca.pem\ncertfile " + path + name + ".pem\nkeyfile " + path +
               name + ".key\n";
    }
    BrokerSettings Client(const Broker& broker, const std::string& ca, bool certificate = false) const
    {
        BrokerSettings settings = At(broker.Port(), "box");
        settings.tls = true;
        settings.ca = ca.empty() ? "" : folder_.Path() + "/" + ca + ".pem";
        if (certificate) {
            settings.certificate = folder_.Path() + "/box.pem";
            settings.key = folder_.Path() + "/box.key";
        }
        return settings;
    }
    // Why there is no connection, once there is a broker.
    static std::string Why(const BrokerSettings& settings)
    {
        Peer peer(settings);
        std::string reason = "connection refused";
        for (int i = 0; i < 100 && reason.starts_with("connection refused"); ++i) {
            peer.link.Connect({"will", "", 0, false});
            const LinkEvent event = peer.Event();
            reason = event.type == Type::Up ? "" : event.reason;
        }
        return reason;
    }

    Folder folder_;
};

TEST_F(Tls, ConnectsOnlyToTheRightBroker)
{
    Broker broker(folder_.Path(), Server("localhost"));
    EXPECT_EQ(Why(Client(broker, "ca")), "");
    const std::string failed = "certificate verify failed: ";
    std::string why = Why(Client(broker, "other"));
    EXPECT_TRUE(why.starts_with(failed) && why.ends_with("is `ca` the authority of the broker's certificate?")) << why;
    why = Why(Client(broker, ""));
    EXPECT_TRUE(why.starts_with(failed) && why.ends_with("set `ca` to the authority of the broker's certificate"))
        << why;
    Broker elsewhere(folder_.Path(), Server("elsewhere"));
    EXPECT_EQ(Why(Client(elsewhere, "ca")),
              "the broker's certificate is not for localhost: is `host` the name that stands in it?");
    Broker plain(folder_.Path(), Open);
    EXPECT_NE(Why(Client(plain, "ca")), "");
    BrokerSettings none = At(broker.Port(), "box");
    EXPECT_NE(Why(none).find("port without TLS"), std::string::npos);
    EXPECT_THROW(Link(Client(broker, "missing")), std::exception);
}

TEST_F(Tls, ShowsItsCertificate)
{
    Broker broker(folder_.Path(), Server("localhost") + "require_certificate true");
    EXPECT_EQ(Why(Client(broker, "ca", true)), "");
    // The broker's word may be lost when it ends the connection.
    const std::string why = Why(Client(broker, "ca"));
    EXPECT_TRUE(why == "the broker wants a certificate of the client: set `certificate` and `key`" ||
                why.ends_with("does it accept this client's certificate?"))
        << why;
}

}  // namespace

}  // namespace voq::mqtt
