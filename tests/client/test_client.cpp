// The client library where the whole process shows too little of it: the checks of a database bit by bit, and the text
// of registers and projects.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include "client/db_check.h"
#include "client/description/description.h"
#include "client/description/limits.h"
#include "client/error.h"
#include "client/numbers.h"
#include "client/prepare.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/project_toml.h"
#include "voq/rt_item.h"

using voq::Bytes;
using voq::PutRecord;

namespace
{

template <typename Call>
std::string ErrorOf(Call call)
{
    try {
        call();
    } catch (const voq::Error& error) {
        return error.what();
    }
    return "(no error)";
}

#define EXPECT_HAS(text, part) \
    EXPECT_NE(std::string(text).find(part), std::string::npos) << (text) << "\nlacks " << (part)

RegKey Key(std::uint8_t station, std::uint16_t area, std::uint8_t layout, std::uint32_t addr, std::uint16_t width,
           std::uint32_t subaddr = 0, std::uint32_t flag = 0)
{
    return {flag, 0, 1, station, layout, area, width, addr, subaddr};
}

// A sound database: five groups in chain order, records created in another order, every map file complete.
voq::Snapshot SoundDatabase()
{
    voq::Project project;
    project.ports.resize(1);
    project.ports[0].portNo = 1;
    project.registers = {Key(1, 4, 0x22, 0, 2),
                         Key(1, 0, 0x00, 3, 16),
                         Key(1, 4, 0x22, 5, 2, 0x9),
                         Key(1, 4, 0x22, 0, 1),
                         Key(1, 4, 0x22, 1, 1, 0, 0x10200),
                         Key(1, 4, 0x22, 7, 10),
                         Key(2, 3, 0x24, 1, 3),
                         Key(1, 4, 0x22, 9, 2, 0x70009)};
    return voq::PrepareDatabase(project, 0, {}).files;
}

std::string Findings(const voq::Snapshot& db)
{
    std::string text;
    for (const auto& f : voq::CheckSnapshot(db)) text += f.file + " " + std::to_string(f.offset) + ": " + f.text + "\n";
    return text;
}

TEST(Check, EveryStructuralBitIsGuardedAndNoOtherIs)
{
    voq::Snapshot db = SoundDatabase();
    ASSERT_TRUE(voq::CheckSnapshot(db).empty()) << Findings(db);
    const auto flipAll = [&](Bytes& bytes, const char* file, auto structural) {
        for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
            bytes[bit / 8] ^= static_cast<std::uint8_t>(1u << bit % 8);
            EXPECT_EQ(voq::HasViolation(voq::CheckSnapshot(db)), structural(bit))
                << file << " byte " << bit / 8 << " bit " << bit % 8;
            bytes[bit / 8] ^= static_cast<std::uint8_t>(1u << bit % 8);
        }
    };
    flipAll(db.org.bytes, "org", [](std::size_t bit) {
        if (bit < 12 * 8) return true;
        const std::size_t at = (bit - 12 * 8) % (56 * 8), byte = at / 8;
        // The group bit of the flag; station to subaddr; dataoffset, prev, next.
        return at == 9 || (byte >= 10 && byte < 24) || byte >= 44;
    });
    flipAll(db.index, "index", [](std::size_t) { return true; });
    for (auto& [name, bytes] : db.maps) flipAll(*bytes, name.c_str(), [](std::size_t) { return true; });
}

TEST(Check, SaysWhatIsBrokenAndWhere)
{
    const voq::Snapshot sound = SoundDatabase();
    const auto after = [&](auto damage) {
        voq::Snapshot db = sound;
        damage(db);
        return Findings(db) + (voq::HasViolation(voq::CheckSnapshot(db)) ? "broken" : "sound");
    };
    EXPECT_HAS(after([](auto& db) { db.org.bytes.resize(11); }), "org 0: shorter than its header: 11 bytes\nbroken");
    EXPECT_HAS(after([](auto& db) { db.org.bytes.resize(12 + 8 * 56 + 5); }), "org 460: a record is cut off");
    EXPECT_HAS(after([](auto& db) { PutRecord(db.org.bytes, 348 + 52, std::uint32_t{180}); }),
               "org 400: the chain comes back to record 180");  // the tail's next leads to the head
    EXPECT_HAS(after([](auto& db) { db.index.resize(64); }), "the group is not in the index");
    EXPECT_HAS(after([](auto& db) { db.index.insert(db.index.end(), db.index.begin(), db.index.begin() + 16); }),
               "index 80: a second entry for the group");
    EXPECT_HAS(after([](auto& db) { --db.dataSize; }), "the data file at");
    EXPECT_HAS(after([](auto& db) { PutRecord(db.org.bytes, 12 + 44, std::uint32_t{1}); }), "overlaps that of record");
    EXPECT_HAS(after([](auto& db) { db.maps["im1_4_22_0"].reset(); }), "there is no file im1_4_22_0");
    // What the service leaves behind in sound operation: a map that misses a record or is not made yet, growing files.
    EXPECT_HAS(after([](auto& db) {
                   db.maps["im1_4_22_0"]->resize(24);
                   PutRecord(db.index, 12, std::uint32_t{2});
                   db.maps["im1_0_0_0"].reset();
                   PutRecord(db.index, 16 + 12, std::uint32_t{0});
                   db.index.push_back(1), ++db.dataSize;
               }),
               "sound");
}

TEST(Expression, ParsesAndRefuses)
{
    const std::pair<const char*, RegKey> good[] = {
        {"s1:a4:u16@100*10", {0, 0, 5, 1, 0x22, 4, 10, 100, 0}},
        {"station=1,area=4,type=u16,addr=100,count=10", {0, 0, 5, 1, 0x22, 4, 10, 100, 0}},
        {"p1:s2:a0:bit@0x10,priority=each", {0, 0, 1, 2, 0x00, 0, 1, 16, 0}},
        {"s255:a65535:raw:5@4294967295,unit=1,big_endian,bcd,priority=10,flag=0x800200",
         {0x8A8300, 0, 5, 255, 0x15, 65535, 1, 4294967295u, 0}},
        {"s1:a4:float@2,subaddr=0x10002,convpara=7,big_endian=true", {0x100, 7, 5, 1, 0x24, 4, 1, 2, 0x10002}},
        {"s1:a4:raw:1@2", {0, 0, 5, 1, 0x11, 4, 1, 2, 0}},
    };
    for (const auto& [text, key] : good) {
        const voq::Register reg = voq::ParseExpression(text, 5);
        EXPECT_EQ(std::memcmp(&reg.key, &key, sizeof(RegKey)), 0) << text << " -> " << voq::Expression(reg);
        const voq::Register again = voq::ParseExpression(voq::Expression(reg), std::nullopt);
        EXPECT_EQ(std::memcmp(&again.key, &key, sizeof(RegKey)), 0) << voq::Expression(reg);
    }
    const char* bad[][2] = {
        {"s1:a4:u17@1", "\"u17\" is none of"},
        {"a4:u16@1", "station is missing"},
        {"s256:a4:u16@1", "station 256 is not"},
        {"s1:a4:u16@4294967296", "addr: \"4294967296\""},
        {"s1:a4:u16@1*0", "count 0 is not within"},
        {"s1:a4:raw:16@1", "raw:16"},
        {"s1:a4:u16@1,flag=0x10000,priority=1", "priority bits"},
        {"s1:a4:double@1*8225", "65800 bytes"},
        {"s1:a4:u16@1,colour=3", "unknown key \"colour\""},
    };
    for (const auto& each : bad) EXPECT_HAS(ErrorOf([&] { voq::ParseExpression(each[0], 5); }), each[1]);
}

TEST(Project, PlacesAndRoundTrip)
{
    const voq::Project demo = voq::LoadDescription(VOQ_EXAMPLE).Built();
    const Bytes file = voq::BuildProject(demo);
    const auto u32 = [&](std::size_t at) { return voq::RecordAt<std::uint32_t>(file, at).value(); };
    const std::size_t comm = u32(u32(20) + 32), record = comm + u32(comm + 4);
    EXPECT_EQ(u32(comm), 1u);
    EXPECT_EQ(voq::Hex(std::span(file).subspan(record, 60)),
              "000000000200000001000000310300000100007f0000ac3a2c01000000000000000000000000400080000a1001"
              "000000000000000000000000000000");
    const std::size_t table = u32(u32(u32(20) + 40)), last = table + u32(table + 4 + 4 * (6 + 5));
    EXPECT_EQ(u32(table), 6u);
    EXPECT_EQ(voq::Hex(std::span(file).subspan(last, 24)), "000000000000000001000100010010000000000000000000");

    // What no named key says must come through as well: an unknown link, reserved bytes, foreign flags.
    voq::Project wild = demo;
    wild.byteOrder = 0xABCD;
    ComInfoRecord port;
    std::memset(&port, 0x97, sizeof port);
    wild.ports.push_back(port);
    ComInfoRecord serial = {};
    serial.portNo = 3;
    serial.parity = 2;
    serial.flags = PLC_TIMEOUT << 17;
    wild.ports.push_back(serial);
    wild.registers.push_back({0xFFFFFFFF, 0x12345678, 3, 255, 0xF3, 65535, 20000, 0xFFFFFFFF, 0xFFFFFFFF});
    wild.registers.push_back({0x0003FF00, 0, REG_PORT_LOCAL, 0, 0x08, 0, 1, 0, 0});
    std::size_t skipped = 0;
    for (const voq::Project& project : {demo, wild}) {
        const std::string text = WriteProjectToml(voq::ParseProject(voq::BuildProject(project)), skipped);
        EXPECT_EQ(voq::BuildProject(voq::ParseDescription(text, "t").Built()), voq::BuildProject(project)) << text;
        EXPECT_EQ(skipped, 0u);
    }
    wild.registers.push_back(Key(1, 1, 0x22, 0, 0));
    WriteProjectToml(wild, skipped);
    EXPECT_EQ(skipped, 1u);

    for (std::size_t size = 0; size < file.size(); ++size) {
        EXPECT_NE(ErrorOf([&] { voq::ParseProject(std::span(file).first(size)); }), "(no error)") << size;
    }
    const std::size_t places[] = {20,       u32(20),   u32(20) + 32, u32(20) + 40, comm,
                                  comm + 4, table - 4, table,        table + 28};
    for (const std::size_t place : places) {
        for (const std::uint32_t value :
             {0xFFFFFFFFu, 0xFFFFFFFEu, 0x7FFFFFFFu, static_cast<std::uint32_t>(file.size() - 1)}) {
            Bytes damaged = file;
            PutRecord(damaged, place, value);
            EXPECT_HAS(ErrorOf([&] { voq::ParseProject(damaged); }), "offset ") << place << " " << value;
        }
    }
}

// How the error about each description begins.
void ExpectErrors(const auto& bad)
{
    for (const auto& [text, beginning] : bad) {
        const std::string error = ErrorOf([&given = text] { voq::ParseDescription(given, "t"); });
        EXPECT_TRUE(error.starts_with(beginning)) << text.substr(0, 80) << "\n" << error;
    }
}

TEST(Project, ErrorsNameFileAndLine)
{
    const std::string port = "[[port]]\nlink = \"can\"\nnumber = 1\n",
                      reg = port + "[[register]]\nstation = 1\narea = 1\n";
    const std::string whole = reg + "address = 1\ntype = \"u16\"\nname = \"a\"\n";
    const std::pair<std::string, const char*> bad[] = {
        {"x = = 1", "t:1: "},
        {port + "\ncolour = 1", "t:5: unknown key \"colour\""},
        {"[port]", "t:1: port must be written as [[port]]"},
        {"[[port]]\nnumber = 1", "t:1: link is missing"},
        {port + "address = \"1.2.3.4\"", "t:4: address: is for ethernet ports, this one is can"},
        {"[[port]]\nlink = \"ethernet\"\nnumber = 1\naddress = \"1.2.3.256\"", "t:4: address: "},
        {port + port, "t:4: there is a port of this link and number already"},
        {reg + "count = -1", "t:7: count -1 is not within 1 to 65535"},
        {reg + "address = \"1\"", "t:7: address must be an integer"},
        {reg + "port = 2", "t:7: port: no port has the number 2"},
        {reg + "type = \"u8\"", "t:7: type: \"u8\" is none of"},
        {whole + "[[register]]\nname = \"a\"", "t:11: name: there is a register \"a\" already"},
        {port + port.substr(0, 22) + "number = 2\n[[register]]\nstation = 1\narea = 1\naddress = 1\ntype = \"bit\"",
         "t:7: port is missing"},
    };
    EXPECT_EQ(voq::ParseDescription(whole, "t").Find("a")->line, 4u);
    ExpectErrors(bad);
}

std::string Repeated(std::size_t times, const char* text)
{
    std::string result;
    while (times-- > 0) result += text;
    return result;
}

TEST(Project, ForeignDescriptionsAreBounded)
{
    const std::pair<std::string, const char*> bad[] = {
        {"\nx = " + std::string(20000, '['), "t:2: more than 8 brackets"},
        {"x = " + Repeated(20000, "{a="), "t:1: more than 8 brackets"},
        {Repeated(200000, "a.") + "a = 1", "t:1: a dotted key"},
        {"[" + Repeated(200000, "a.") + "a]", "t:1: a text of "},
        {"[[a.b]]", "t:1: [a.b] is unknown"},
        {std::string(300, 'a') + " = 1", "t:1: a text of 300 bytes"},
        {"x = \"" + std::string(300, 'a') + '"', "t:1: a text of 300 bytes"},
        {Repeated(voq::MaxDescriptionBytes / 2, "#\n") + "\n", "t: longer than "},
        // Where strings end decides what is a key.
        {"x = \"\"\"a\n\"\"\"\"\"\na.b = 1", "t:3: a dotted key"},
        {"x = '\\'\na.b = 1", "t:2: a dotted key"},
        {"x = \"\\\"\"\na.b = 1", "t:2: a dotted key"},
        {"x = [ 1.5, {a = '.', b.c = 1} ]", "t:1: a dotted key"},
    };
    ExpectErrors(bad);
    const std::string odd =
        "# \"[[[[[[[[[ ' a.b\nport = [{link = 'can', number = 1}]\n [[ register ]] # ]\nname = \"\"\"a.b\"\"\"\n"
        "station = 1\narea = 1\ntype = \"u16\"\naddress = 1\n";
    EXPECT_NE(voq::ParseDescription(odd, "t").Find("a.b"), nullptr);
}

// Ten times the registers may take 25 times the time, far from the hundred of a search for each.
TEST(Project, ManyNamesAreNoQuadraticSearch)
{
    const auto clocksFor = [](int registers) {
        std::string text = "[[port]]\nlink = \"can\"\nnumber = 1\n";
        const std::string rest = "\nstation = 1\narea = 4\ntype = \"u16\"\naddress = 1\n";
        for (int i = 0; i < registers; ++i) text += "[[register]]\nname = \"r" + std::to_string(i) + '"' + rest;
        const std::clock_t begin = std::clock();
        voq::ParseDescription(text, "t");
        return std::clock() - begin;
    };
    EXPECT_LT(clocksFor(50000), 25 * clocksFor(5000));
}

TEST(Numbers, LieInImagesAndComeBack)
{
    const std::tuple<const char*, std::uint16_t, double, Bytes> cases[] = {
        {"s1:a1:u16@0", 0, 0x1234, {0x34, 0x12}},
        {"s1:a1:s16@0", 1, -2, {0xFF, 0xFE}},
        {"s1:a1:s32@0,big_endian", 0, -2, {0xFF, 0xFF, 0xFF, 0xFE}},
        {"s1:a1:u16@0,bcd", 0, 1234, {0x34, 0x12}},
        {"s1:a1:u32@0,bcd", 0, 12345678, {0x78, 0x56, 0x34, 0x12}},
        {"s1:a1:float@0", 0, 1.5, {0, 0, 0xC0, 0x3F}},
        {"s1:a1:double@0,big_endian", 0, 1.5, {0x3F, 0xF8, 0, 0, 0, 0, 0, 0}},
        {"s1:a1:bit@0", 0, 1, {1}},
    };
    for (const auto& [text, order, number, image] : cases) {
        const auto coding = voq::CodingOf(voq::ParseExpression(text, 1), order);
        EXPECT_EQ(voq::EncodeNumbers(coding, {&number, 1}), image) << text;
        double decoded = 0;
        EXPECT_EQ(voq::DecodeNumbers(coding, image, {&decoded, 1}), 1u);
        EXPECT_EQ(decoded, number) << text;
    }
    const auto coding = [](const char* text) { return voq::CodingOf(voq::ParseExpression(text, 1), 0); };
    double number = 0;
    std::int64_t integer = 0;
    const auto encode = [&](const char* text, double value) {
        return ErrorOf([&] { voq::EncodeNumbers(coding(text), {&value, 1}); });
    };
    const Bytes noBcd = {0x1A, 0};
    voq::DecodeNumbers(coding("s1:a1:u16@0,bcd"), noBcd, {&number, 1});
    EXPECT_NE(number, number);
    EXPECT_HAS(ErrorOf([&] { voq::DecodeIntegers(coding("s1:a1:u16@0,bcd"), noBcd, {&integer, 1}); }), "no packed BCD");
    EXPECT_HAS(encode("s1:a1:u16@0,bcd", 10000), "does not fit u16 in BCD");
    EXPECT_HAS(encode("s1:a1:float@0", 1e39), "does not fit float");
    EXPECT_HAS(encode("s1:a1:u16@0", number), "does not fit");
    EXPECT_HAS(ErrorOf([&] { voq::EncodeIntegers(coding("s1:a1:float@0"), {&integer, 1}); }), "is no integer");
}

}  // namespace
