// Descriptions: what nests and repeats, what values mean, what a check finds, tables of registers.
#include <gtest/gtest.h>

#include "client/description/description.h"
#include "client/error.h"
#include "client/value_text.h"
#include "tools/change_meaning.h"
#include "tools/project_check.h"
#include "tools/project_csv.h"

using voq::Bytes;

namespace
{

const std::string Port = "[[port]]\nnumber = 1\ndriver = \"modbus_tcp\"\naddress = \"10.0.0.1\"\n";

// In one line: registers of station 1, holding, u16.
std::string Block(const std::string& rows, const std::string& keys = "")
{
    return "[[block]]\nstation = 1\narea = \"holding\"\ntype = \"u16\"\n" + keys + "registers = [\n" + rows + "\n]\n";
}

// Everything that reading and checking finds, a line each, without the file's name.
std::string Found(const std::string& text, const std::string& userDir = "")
{
    voq::Remarks remarks("t");
    CheckDescription(voq::ReadDescription(text, voq::StandardDriverDirs(), remarks), userDir, remarks);
    std::string lines;
    for (const voq::Remark& each : remarks.InOrder()) lines += remarks.Text(each).substr(2) + "\n";
    return lines;
}

std::string Shown(const voq::Description& text, const char* name, const Bytes& value)
{
    const voq::DescribedRegister* reg = text.Find(name);
    return voq::ScaledText(reg->meaning, voq::CodingOf(reg->reg, text.ByteOrderOf(1)), value, 99);
}

// The image in hexadecimal, or why there is none.
std::string Typed(const voq::Description& text, const char* name, std::vector<std::string> values)
{
    const voq::DescribedRegister* reg = text.Find(name);
    try {
        return voq::Hex(
            voq::EncodeScaled(reg->meaning, voq::CodingOf(reg->reg, text.ByteOrderOf(1)), reg->reg.key.width, values));
    } catch (const voq::Error& error) {
        return error.what();
    }
}

TEST(Description, NestsAndRepeats)
{
    const voq::Description text = voq::ParseDescription(
        Port + "[[station]]\nname = \"far\"\nnumber = 7\npriority = 3\nscale = 0.5\n" +
            "[[block]]\nstation = \"far\"\narea = 4\ntype = \"u16\"\ncount = 2\nstride = 16\nstation_stride = 1\nfirst "
            "= 5\n"
            "prefix = \"p#.\"\nregisters = [\n{ name = \"a\", address = 1, comment = \"no #\" },\n"
            "{ name = \"b\", address = 2, type = \"double\", priority = 10, scale = 1 } ]\n",
        "t");
    ASSERT_EQ(text.registers.size(), 4u);
    const voq::DescribedRegister &a = *text.Find("p6.a"), &b = *text.Find("p6.b");
    EXPECT_EQ(voq::Expression(a.reg), "p1:s8:a4:u16@17*1,flag=0x30000");
    EXPECT_EQ(a.meaning.comment + a.station, "no 6far");
    EXPECT_EQ(a.meaning.scale, 0.5);
    EXPECT_EQ(voq::Expression(b.reg), "p1:s8:a4:double@18*1,flag=0xa0000");
    EXPECT_EQ(b.reg.order, 3) << "a driver's order holds for doubles";
    const ComInfoRecord& port = text.ports[0].record;
    EXPECT_EQ(port.byteOrder, 0x331);
    EXPECT_EQ(port.wordLimit + port.linkType, 125 + LINK_ETHERNET);
    EXPECT_FALSE(voq::ServiceAgrees({b.reg.key, b.reg.type, 1}, 0x331)) << "the service goes by the port's word";
}

TEST(Description, ValuesAsTheyMean)
{
    const voq::Description text = voq::ParseDescription(
        Port + Block("{ name = 'level', address = 0, type = 's16', scale = 0.1, offset = -5, min = -10, max = 20.5 },\n"
                     "{ name = 'mode', address = 1, enum = { 0 = 'off', 5 = 'on' } },\n"
                     "{ name = 'bits', address = 2, bits = ['a', 'b'] },\n"
                     "{ name = 'flow', address = 3, type = 'float', byte_order = 'low-word-first', decimals = 2 },\n"
                     "{ name = 'text', address = 5, text = 5 },\n{ name = 'turned', address = 8, text = 4, "
                     "text_swapped = true },\n"
                     "{ name = 'two', address = 20, count = 2, max = 9 }, { name = 'bcd', address = 30, bcd = true, "
                     "scale = 0.1 }"),
        "t");
    const std::tuple<const char*, Bytes, const char*, const char*> values[] = {
        {"level", {0x00, 0xFF}, "20.5", "00ff"},
        {"level", {0xFF, 0xCE}, "-10.0", "ffce"},
        {"mode", {0, 5}, "on", "0005"},
        {"mode", {0, 7}, "7", "\"7\" is none of off (0), on (5)"},
        {"bits", {0, 3}, "a|b", "0003"},
        {"bits", {0x80, 0}, "bit15", "8000"},
        {"bits", {0, 0}, "-", "0000"},
        {"flow", {0x80, 0, 0x41, 0xBD}, "23.69", "851f41bd"},
        {"text", {'P', 'u', 'm', ' ', 0, 'x'}, "Pum", "50756d000000"},
        {"turned", {'b', 'a', 'd', 'c'}, "abcd", "62616463"},
        {"bcd", {0x12, 0x34}, "123.4", "1234"},
    };
    for (const auto& [name, raw, shown, typed] : values) {
        EXPECT_EQ(Shown(text, name, raw), shown);
        EXPECT_EQ(Typed(text, name, {shown}), typed) << name;
    }
    EXPECT_EQ(Shown(text, "two", {0, 1, 0, 2}), "1 2");
    EXPECT_EQ(Typed(text, "two", {"9", "10"}), "10 is above the maximum of 9");
    EXPECT_EQ(Typed(text, "two", {"9"}), "the range has 2 element(s), 1 value(s) are given");
    EXPECT_EQ(Typed(text, "level", {"-10.1"}), "-10.1 is below the minimum of -10");
    EXPECT_EQ(Typed(text, "level", {"1e9"}), "1e9 is above the maximum of 20.5");
    EXPECT_EQ(Typed(text, "text", {"longer"}), "the text has 6 bytes, the range holds 5");
    EXPECT_EQ(Typed(text, "bits", {"a|c"}), "\"c\" is none of the bits a (0), b (1)");
    EXPECT_EQ(Typed(text, "bcd", {"1000"}), "1000 does not fit u16: 0.0 to 999.9") << "the type's own limits";
    const voq::DescribedRegister* two = text.Find("two");
    EXPECT_THROW(voq::RequireWithinLimits(two->meaning, voq::CodingOf(two->reg, 0x331), Bytes{0, 1, 0, 10}),
                 voq::Error);
}

TEST(Description, NamesOfARowBesideThoseAround)
{
    const voq::Description text = voq::ParseDescription(
        Port + "enum = ['off', 'on']\n" +
            Block("{ name = 'a', address = 0 }, { name = 'b', address = 1, enum = ['no', 'yes'] },\n"
                  "{ name = 'c', address = 2, bits = ['p', 'q'] }, { name = 'd', address = 3, text = 2 },\n") +
            "[[block]]\nstation = 1\narea = 4\ntype = 'u16'\nbits = ['x', 'y']\nregisters = [\n"
            "{ name = 'e', address = 10 }, { name = 'f', address = 11, enum = { 1 = 'one' } } ]\n",
        "t");
    const auto one = [&](const char* name) { return Shown(text, name, {'\0', 1}); };
    EXPECT_EQ(one("a") + one("b") + one("c") + one("e") + one("f") + Shown(text, "d", {'h', 'i'}), "onyespxonehi");
}

// The change as it goes to the service: the operation, and step, minimum and maximum as they lie.
std::string Lies(const voq::Description& text, const char* name, const char* change, bool raw = false)
{
    try {
        const voq::ChangeText is = AsItLies(*text.Find(name), text.ByteOrderOf(1), voq::ParseChange(change), raw);
        return is.operation + ' ' + is.operands[0] + ' ' + is.minimum.value_or("-") + ' ' + is.maximum.value_or("-");
    } catch (const voq::Error& error) {
        return error.what();
    }
}

TEST(Description, ChangesAsTheyMean)
{
    const voq::Description text = voq::ParseDescription(
        Port + Block("{ name = 'speed', address = 0, scale = 0.1, min = 0.05, max = 100 },\n"
                     "{ name = 'turned', address = 1, scale = -0.5, offset = 10, min = -10, max = 5 },\n"
                     "{ name = 'flow', address = 2, type = 'float', max = 1.5 },\n"
                     "{ name = 'plain', address = 4, max = 70000 }, { name = 'word', address = 5, bits = ['p', 'q'] }"),
        "t");
    EXPECT_EQ(Lies(text, "speed", "add 5"), "add 50 1 1000");
    EXPECT_EQ(Lies(text, "speed", "add 5 max 20.5"), "add 50 1 205");
    EXPECT_EQ(Lies(text, "speed", "add 5 max 205", true), "add 5 1 205");
    EXPECT_EQ(Lies(text, "speed", "sub 0.25"), "the step 0.25 is no multiple of 0.1");
    EXPECT_EQ(Lies(text, "speed", "add 1 max 1001", true), "100.1 is above the maximum of 100");
    EXPECT_EQ(Lies(text, "turned", "add 2 min 0"), "sub 4 10 20") << "a falling scale exchanges directions and limits";
    EXPECT_EQ(Lies(text, "flow", "add 0.5") + ", " + Lies(text, "plain", "add 1"), "add 0.5 - 1.5, add 1 - -");
    EXPECT_EQ(Lies(text, "word", "set q") + Lies(text, "word", "set r"), "set 1 - -\"r\" is no bit of the register");
}

TEST(Description, ChecksSayAllAtOnce)
{
    const std::string rows =
        "{ name = 'a', address = 40001 },\n{ name = 'b', address = 10, count = 200 },\n"
        "{ name = 'c', address = 12, type = 'float' },\n{ name = 'd', address = 12, type = 'u32' },\n"
        "{ name = 'e', address = 300, type = 'raw:12' },\n{ name = 'f', address = 65535, type = 'float' },\n"
        "{ name = 'g', address = 60, min = 70000 },\n{ name = 'h', address = 61, enum = { 70000 = 'x' } },\n"
        "{ name = 'i', address = 400, type = 'bit' },\n{ nam = 'j', address = 401, type = 'u8' }";
    EXPECT_EQ(Found(Port + Block(rows)),
              "10: warning: \"a\": address 40001 looks like a manual's number; it would be address 0 of area 4\n"
              "11: warning: \"b\": word_limit = 125 cuts its 200 elements into 2 requests, which may be of different "
              "moments\n"
              "12: warning: \"c\" (float) overlaps \"b\" (u16) of line 11\n"
              "13: warning: \"d\" is the same range as \"c\" of line 12: one record, shown as \"c\"\n"
              "13: warning: \"d\" (u32) overlaps \"b\" (u16) of line 11\n"
              "14: \"e\": no driver gets an element of 12 bytes, 8 is the most\n"
              "14: \"e\": modbus_tcp: elements are of 2, 4, 6 or 8 bytes\n"
              "15: \"f\": modbus_tcp: it ends beyond address 65535\n"
              "16: \"g\": no value of u16 is within min and max\n"
              "17: \"h\": enum: 70000 (x) does not fit u16\n"
              "18: \"i\": modbus_tcp: bits are in areas 0 (coils) and 1 (discrete)\n"
              "19: type: \"u8\" is none of bit, u16, s16, u32, s32, float, double, raw:1 to raw:15\n"
              "19: unknown key \"nam\"\n");

    const std::string odd =
        "{ name = 'a', address = 1, min = -5 }, { name = 'b', address = 2, scale = 0.1, max = 7000 },\n"
        "{ name = 'c', address = 10, type = 'u32' }, { name = 'd', address = 11, type = 'u32' }";
    EXPECT_EQ(
        Found(Port + Block(odd) + Block("{ name = 'p', address = 0 }", "port = 255\n")),
        "10: warning: \"a\": min = -5 limits nothing, u16 holds 0 to 65535\n"
        "10: warning: \"b\": max = 7000 limits nothing, u16 holds 0 to 6553.5\n"
        "11: warning: \"c\" overlaps a part of an element of \"d\"\n"
        "19: warning: \"p\": the panel's own registers have no area 4, but 253 (RW), 254 (LB), 255 (LW), 256 (SRW) "
        "and 257 (SRB)\n");
    EXPECT_EQ(
        Found("[[port]]\nnumber = 255\ndriver = 'modbus_tcp'\naddress = 'plc.local'\nbaud = 9600\nword_limit = 1\n" +
              Block("{ name = 'q', address = 1, address_bytes = 4 }")),
        "1: port 255 stands for the panel's own registers: no register of a PLC can be of it\n"
        "4: address: \"plc.local\" is not an IPv4 address\n"
        "5: baud: is for serial and can ports, this one is ethernet\n"
        "12: \"q\": word_limit = 1 elements are less than one address, 4 bytes: it is never read\n");
    EXPECT_EQ(Found("[[port]]\nnumber = 1\ndriver = 'modbus_rtu'\nbaud = 9601\n[[register]]\nname = 'a'\nstation = "
                    "0\narea = 4\ntype = 'u16'\naddress = 0\n"),
              "1: warning: baud = 9601 is no usual speed of a line\n5: \"a\": modbus_rtu: stations are 1 to 247\n");

    const std::string slow = "[[port]]\nnumber = 1\nlink = 'can'\npacking = false\npause_ms = 200\n";
    const std::string four = "{ address = 1 }, { address = 2 }, { address = 3 }, { address = 4 }";
    EXPECT_EQ(
        Found(slow + Block(four, "priority = 3\n")),
        "1: warning: priority 3 means values of at most 600 ms, but a round of 4 reads takes at least 800 ms: lower "
        "pause_ms, or raise the limits and gaps\n");
    EXPECT_EQ(Found(slow + Block("{ address = 1 }, { address = 2 }", "priority = 3\n")), "");
    EXPECT_EQ(Found(slow + Block("{ address = 4294967295, type = 'float' }")),
              "11: \"p1:s1:a4:float@4294967295*1\" ends behind the last address, 4294967295\n");
    EXPECT_EQ(Found("[[port]]\nnumber = 300\nlink = 'serial'\ndriver = 'modbus_tcp'\n", std::string(50, 'u')),
              "1: warning: port 300 is above 255: a reload frame has one byte for it, and the retained settings end at "
              "port 195\n"
              "1: modbus_tcp is a driver for ethernet\n1: the path " +
                  std::string(50, 'u') +
                  "/com_300/comerror has 67 characters, the service takes 63\n"
                  "1: warning: no register is of port 300\n");
}

TEST(Description, MistakesOfForm)
{
    const std::pair<std::string, const char*> bad[] = {
        {Block("{ name = 'a', address = 1 }", "count = 2\nstride = 1\n"),
         "12: name: \"a\" needs a \"#\" for the number of the copy\n"},
        {Block("{ name = 'a#', address = 1 }", "count = 2\n"), "9: count: copies need a stride, or a station_stride\n"},
        {Block("{ address = 1, text = 4, scale = 2 }"), "10: scale: has no meaning beside text\n"},
        {Block("{ address = 1, type = 'float', enum = ['a'] }"),
         "10: enum: is for bits and integers, not for a float\n"},
        {Block("{ address = 1, bits = { 16 = 'a' } }"), "10: bits: there is no bit 16 (0 to 15)\n"},
        {Block("{ address = 1, enum = ['a', 'a'] }"), "10: enum: there is a \"a\" already\n"},
        {Block("{ address = 1, min = 2, max = 1 }"), "10: min: is above max\n"},
        {Block("{ address = 1, scale = 0 }"), "10: scale: 0 makes every value the same\n"},
        {Block("{ address = 1, type = 'double', byte_order = 1 }"),
         "10: byte_order: a number says nothing about a double: give a name\n"},
        {"[[register]]\nstation = \"x\"\narea = 4\ntype = \"u16\"\naddress = 1\n",
         "6: station: no [[station]] has the name \"x\"\n"},
        {"[[block]]\nstation = 1\n", "5: registers is missing\n"},
    };
    for (const auto& [text, found] : bad) EXPECT_EQ(Found(Port + text), found) << text;
    const std::string none = Found("[[port]]\nnumber = 1\ndriver = 'none'\naddress = '10.0.0.1'\n");
    EXPECT_TRUE(none.starts_with("3: driver: there is no none.so in ")) << none;
    EXPECT_TRUE(none.find("(there is ") != none.npos && none.find("unknown key") == none.npos) << none;
}

std::string Imported(const std::string& csv, CsvAddresses addresses, voq::Remarks& remarks)
{
    return TomlOfCsv(ParseCsv(csv, "t"), addresses, remarks).text;
}

TEST(Description, TablesComeAndGo)
{
    const voq::Description plant = voq::LoadDescription(VOQ_PLANT);
    const std::string table = CsvOfDescription(plant);
    voq::Remarks none("t");
    const voq::Description again = voq::ParseDescription(Port + Imported(table, CsvAddresses::Plain, none), "t");
    EXPECT_EQ(CsvOfDescription(again), table);
    EXPECT_EQ(voq::BuildProject({0, {}, again.Built().registers}), voq::BuildProject({0, {}, plant.Built().registers}));

    EXPECT_EQ(Imported("\xEF\xBB\xBF"
                       "Scale;Address;Comment;Station\r\n0,5;40011;\"a \"\"b\"\";\";2\r\n",
                       CsvAddresses::Manual, none),
              "\n[[block]]\nstation = 2\narea = 4\nregisters = [\n"
              "  { address = 10, scale = 0.5, comment = \"a \\\"b\\\";\" },\n]\n");
    EXPECT_NE(Imported("address\n9C40\n", CsvAddresses::Hex, none).find("address = 40000 "), std::string::npos);
    EXPECT_EQ(none.Errors(), 0u);
    voq::Remarks remarks("t");
    Imported("address,colour,scale\n1,red,\nx,,1\n\n2,,y\n3,,1,4\n", CsvAddresses::Plain, remarks);
    std::string lines;
    for (const voq::Remark& each : remarks.InOrder()) lines += remarks.Text(each) + "\n";
    EXPECT_EQ(lines,
              "t:3: address: \"x\" is not understood\nt:5: scale: \"y\" is not understood\n"
              "t:6: more cells than the header has columns\n");
    EXPECT_THROW(ParseCsv("a\n\"b", "t"), voq::Error);
}

}  // namespace
