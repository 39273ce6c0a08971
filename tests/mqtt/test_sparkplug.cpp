// An edge node of Sparkplug: what no whole process shows soon. Numbers of the convention are written out here.
#include <gtest/gtest.h>

#include <fstream>
#include <limits>

#include "client/error.h"
#include "folder.h"
#include "upstream/mqtt/metric_value.h"
#include "upstream/mqtt/sparkplug.h"

namespace voq::mqtt
{

namespace
{

using sparkplug::Carried;
using std::string;

const string Project = R"(port = [{ link = "serial", number = 1, byte_order = 0x331 }]
station = [ { name = "pump", number = 1 }, { name = "pum/p", number = 2 }, { name = "pum+p", number = 3 },
            { name = "PUMP", number = 4 } ]
block = [ { station = "pump", area = 1, type = "u16", registers = [
{ name = "level", address = 0, scale = 0.1, min = 0, max = 100, unit = "m" },
{ name = "mode", address = 1, enum = { 0 = "off", 1 = "on" } },
{ name = "s16", address = 2, type = "s16" }, { name = "words", address = 3, count = 2, type = "s16" },
{ name = "flags", address = 0, area = 0, count = 12, type = "bit" }, { name = "Mode", address = 9, type = "u32" },
{ name = "real", address = 11, type = "float" }, { name = "raw", address = 13, count = 2, type = "raw:2" } ] },
{ station = "pum/p", area = 1, type = "u16", registers = [ { name = "second", address = 0 } ] },
{ station = "pum+p", area = 1, type = "u16", registers = [ { name = "third", address = 0 } ] },
{ station = "PUMP", area = 1, type = "u16", registers = [ { name = "fourth", address = 0 } ] } ]
)";

class Ears : public Outlet
{
public:
    std::optional<int> Publish(const Message& message) override
    {
        messages.push_back(message);
        return message.qos;
    }
    std::optional<int> Subscribe(const string&, int, bool) override { return 1; }
    void Close(bool) override {}

    // The last one of that kind.
    sparkplug::Payload Last(const string& kind) const
    {
        for (auto at = messages.rbegin(); at != messages.rend(); ++at) {
            if (at->topic.find("/" + kind + "/") != string::npos) return *sparkplug::Decode(at->payload);
        }
        return {};
    }
    std::vector<Message> messages;
};

class SparkplugTest : public testing::Test
{
protected:
    SparkplugTest()
    {
        for (std::uint32_t i = 0; i < catalogue_.metrics.size(); ++i) {
            box_.samples.push_back({i, State::Good, 1000000 * (100 - i), 1, {}});
        }
        box_.ports = {PortState::Runs};
        box_.devices.resize(catalogue_.devices.size(), true);
    }

    static Settings Chosen()
    {
        Settings settings;
        settings.convention = Convention::Sparkplug;
        settings.base = "plant";
        settings.box = "box";
        settings.groups = {{{{"*"}}, {}}};
        settings.groups[0].rule.writable = true;
        return settings;
    }
    const Metric& Named(const char* name) const { return catalogue_.metrics[catalogue_.Find(name)]; }
    Sample Of(const char* name, State state, Value value, std::int64_t time = 200000000) const
    {
        return {catalogue_.Find(name), state, time, 1, std::move(value)};
    }
    void Born()
    {
        node_.Will();
        node_.Up();
    }
    bool SaysQuality(const Sample& sample, bool historical)
    {
        node_.Tell({&sample, 1}, historical);
        return ears_.messages.back().payload.find("Quality") != string::npos;
    }

    const Settings settings_ = Chosen();
    const Catalogue catalogue_ = MakeCatalogue(ParseDescription(Project, "t"), settings_, "/nowhere");
    BoxState box_;
    Ears ears_;
    Sparkplug node_{settings_, catalogue_, box_, ears_};
};

TEST_F(SparkplugTest, NamesThatMeanSomethingInTopics)
{
    string names, remarks;
    for (const Device& each : catalogue_.devices) names += each.name + " ";
    for (const string& each : catalogue_.remarks) remarks += each.substr(0, each.find(':')) + ", ";
    EXPECT_EQ(names, "pump pum_p com_1_s3 PUMP ");
    EXPECT_EQ(remarks, "Mode and mode differ in case alone, PUMP and pump differ in case alone, ");
    const Folder folder;
    for (const char* key : {"name = \"a/b\"", "group = \"a+\"", "primary_host = \"#\""}) {
        std::ofstream(folder.Path() + "/s") << "[broker]\nhost = \"h\"\n[box]\nconvention = \"sparkplug\"\n" << key;
        EXPECT_THROW(LoadSettings(folder.Path() + "/s"), Error) << key;
    }
}

TEST_F(SparkplugTest, ValuesAsTheirTypes)
{
    const Value flags = {0L, 0L, 1L, 1L, 0L, 1L, 0L, 0L, 1L, 1L, 0L, 1L};
    const std::tuple<const char*, unsigned, Value, Carried> values[] = {
        {"level", 10, {21.5}, 21.5},
        {"mode", 6, {1L}, 1u},
        {"s16", 2, {-2L}, 0xFFFFFFFEu},
        {"Mode", 7, {4294967295L}, 4294967295u},
        {"real", 9, {0.5}, 0.5f},
        {"words", 23, {-2L, 3L}, sparkplug::Bytes{{'\xFE', '\xFF', 3, 0}}},
        {"flags", 32, flags, sparkplug::Bytes{{12, 0, 0, 0, 0x34, '\xD0'}}},
        {"raw", 33, {"00ff", "1234"}, sparkplug::Bytes{string("00ff\0001234\0", 10)}},
        {"level", 10, {}, {}},
        {"level", 10, {std::monostate()}, {}},
        {"words", 23, {1L, std::monostate()}, {}},
    };
    for (const auto& [name, type, value, carried] : values) {
        EXPECT_EQ(static_cast<unsigned>(DataTypeOf(Named(name))), type) << name;
        EXPECT_EQ(CarriedOf(Named(name), value), carried) << name;
        if (std::holds_alternative<std::monostate>(carried)) continue;
        const auto texts = TextsOf(Named(name), carried);
        ASSERT_EQ(texts.size(), value.size()) << name;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            const auto* text = std::get_if<string>(&value[i]);
            const auto* whole = std::get_if<std::int64_t>(&value[i]);
            const string real = whole == nullptr && text == nullptr ? name == string("level") ? "21.5" : "0.5" : "";
            EXPECT_EQ(texts[i], text != nullptr ? *text : whole != nullptr ? std::to_string(*whole) : real) << name;
        }
    }
    // As another description's registers left them in the spool.
    const std::pair<const char*, Value> unfit[] = {{"mode", {70000L}}, {"mode", {0.5}},      {"mode", {"text"}},
                                                   {"mode", {1L, 2L}}, {"real", {1e300}},    {"flags", {2L}},
                                                   {"words", {1L}},    {"raw", {"00ff", 1L}}};
    for (const auto& [name, value] : unfit) EXPECT_EQ(CarriedOf(Named(name), value), std::nullopt) << name;
    const std::pair<const char*, Carried> refused[] = {
        {"mode", {}},
        {"mode", sparkplug::Bytes{"1"}},
        {"words", sparkplug::Bytes{"123"}},
        {"flags", sparkplug::Bytes{{9, 0, 0, 0, 0x34, '\xD0'}}},  // counts other than its bits
        {"raw", sparkplug::Bytes{"00ff"}},                        // without its end
        {"real", 0xFFFFFFFBu},                                    // -5 of a type that is not the register's
        {"level", ~std::uint64_t{4}},
    };
    for (const auto& [name, carried] : refused) EXPECT_THROW(TextsOf(Named(name), carried), Error) << name;
}

TEST_F(SparkplugTest, BirthsInOrderAndCountedBeyond255)
{
    Born();
    const auto birth = *sparkplug::Decode(ears_.messages[1].payload);
    ASSERT_EQ(birth.metrics.size(), catalogue_.devices[0].metrics.size());
    for (std::size_t i = 1; i < birth.metrics.size(); ++i) {
        EXPECT_LE(birth.metrics[i - 1].timestamp, birth.metrics[i].timestamp);
    }
    std::uint64_t expected = ears_.messages.size();
    for (; expected < 600; ++expected) {
        const Sample sample = Of("mode", State::Good, {1L});
        node_.Tell({&sample, 1}, false);
        ASSERT_EQ(ears_.Last("DDATA").seq, expected % 256);
    }
    for (int i = 1; i < 258; ++i) {
        const auto will = sparkplug::Decode(node_.Will().payload);
        ASSERT_EQ(will->metrics.at(0).value, Carried(std::uint64_t(i % 256)));
    }
    // Asked for once more within a second: no data, then one birth for all.
    const string rebirth = sparkplug::Encode({{}, {{"Node Control/Rebirth", {}, {}, {}, false, true, {}}}, {}});
    for (int i = 0; node_.Ready() && i < 1000; ++i) node_.Arrived({"spBv1.0/plant/NCMD/box", rebirth, 1, false});
    const std::size_t before = ears_.messages.size();
    EXPECT_TRUE(!node_.Ready() && !node_.Tell({&box_.samples[0], 1}, false) && ears_.messages.size() == before);
    node_.EachSecond();
    EXPECT_TRUE(node_.Ready() && ears_.messages.at(before).topic == "spBv1.0/plant/NBIRTH/box");
}

TEST_F(SparkplugTest, QualityInDataUntilItIsGoodAgainWhateverHistoryWas)
{
    Born();
    EXPECT_FALSE(SaysQuality(Of("level", State::Good, {1.0}), false));
    EXPECT_TRUE(SaysQuality(Of("level", State::Timeout, {1.0}), false));
    EXPECT_TRUE(SaysQuality(Of("level", State::Good, {0.5}), true));
    EXPECT_TRUE(SaysQuality(Of("level", State::Good, {2.0}), false)) << "the host still has it stale";
    EXPECT_FALSE(SaysQuality(Of("level", State::Good, {3.0}), false));
}

TEST_F(SparkplugTest, HistoryOfTheDeadAndWhatNoLongerFits)
{
    box_.devices[1] = false;
    Born();
    box_.samples[catalogue_.Find("second")].state = State::Timeout;
    const Sample dead = Of("second", State::Good, {7L}), unfit = Of("mode", State::Good, {"text"});
    const std::size_t births = ears_.messages.size();
    node_.Tell({&dead, 1}, false);
    node_.Tell({&unfit, 1}, true);
    EXPECT_EQ(ears_.messages.size(), births);
    EXPECT_EQ(node_.Unfit(), 1u);
    node_.Tell({&dead, 1}, true);
    ASSERT_EQ(ears_.messages.size(), births + 3);
    const auto data = ears_.Last("DDATA").metrics.at(0);
    EXPECT_TRUE(data.historical && data.value == Carried(7u) && data.name.empty() && !data.datatype);
    EXPECT_NE(ears_.messages[births + 1].payload.find("Quality"), string::npos) << "the birth said stale";
    EXPECT_EQ(ears_.messages[births].topic + ears_.messages[births + 2].topic,
              "spBv1.0/plant/DBIRTH/box/pum_pspBv1.0/plant/DDEATH/box/pum_p");
}

TEST_F(SparkplugTest, CommandsOnceOfTheirDeviceAndWithinBounds)
{
    Born();
    const auto sent = [&](const char* device, sparkplug::Metric metric, std::uint64_t at, bool kept = false) {
        return node_.Arrived({string("spBv1.0/plant/DCMD/box/") + device,
                              sparkplug::Encode({at, {std::move(metric)}, std::nullopt}), 1, kept});
    };
    const auto by = [](const char* name, Carried value) {
        sparkplug::Metric metric;
        metric.name = name;
        metric.value = std::move(value);
        return metric;
    };
    const auto first = sent("pump", by("mode", true), 1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].texts.at(0) + first[0].refused, "1");
    EXPECT_TRUE(sent("pump", by("mode", true), 1).empty()) << "the same once more";
    EXPECT_EQ(sent("pump", by("mode", true), 2).size(), 1u);
    EXPECT_TRUE(sent("pump", by("mode", true), 3, true).empty()) << "kept by the broker";
    EXPECT_TRUE(sent("pump", by("second", true), 4).empty()) << "of another device";
    EXPECT_TRUE(sent("pump", by("none", true), 5).empty());
    EXPECT_FALSE(sent("pump", by("mode", {}), 6).at(0).refused.empty());
    EXPECT_TRUE(sent("pump", by("mode", string(sparkplug::MaxText + 1, 'x')), 7).empty());
    for (const string& bytes : {string("\x12\xFF\xFF\xFF\xFF\x0F", 6), string("\x12\x05\x0A\x7F", 4), string("x")}) {
        EXPECT_TRUE(node_.Arrived({"spBv1.0/plant/DCMD/box/pump", bytes, 1, false}).empty());
    }
    EXPECT_EQ(sparkplug::Decode(sparkplug::Encode({1, std::vector<sparkplug::Metric>(257), 1})), std::nullopt);
}

}  // namespace

}  // namespace voq::mqtt
