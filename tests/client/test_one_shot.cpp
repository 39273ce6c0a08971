// One-shot requests up to their frames, what becomes of answers, and prepared databases. What the service makes of the
// requests is tested with the service.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "client/change.h"
#include "client/compare.h"
#include "client/one_shot.h"
#include "client/prepare.h"
#include "client/value_text.h"
#include "tests/client/client_fixture.h"
#include "voq/rt_item.h"

using voq::Bytes;

namespace
{

constexpr std::uint16_t HighFirst = 0x331;

std::string ChangeHex(const char* expression, std::uint16_t word, const voq::ChangeText& change)
{
    const auto request = voq::BuildChange(voq::ParseExpression(expression, 1), word, change);
    return std::to_string(request.key.addr) + "*" + std::to_string(request.key.width) + " " +
           voq::Hex(Bytes{request.subcmd}) + " " + voq::Hex(request.operand);
}

TEST(Image, EveryClassHasItsOrder)
{
    const auto image = [](const char* expression, std::uint16_t word, const std::string& text) {
        const auto coding = voq::CodingOf(voq::ParseExpression(expression, 1), word);
        const Bytes bytes = voq::EncodeValues(coding, std::span(&text, 1));
        EXPECT_EQ(voq::ValueText(coding, bytes, 1), text) << expression << " " << word;
        return voq::Hex(bytes);
    };
    const char* words32[] = {"44332211", "33441122", "22114433", "11223344"};  // 0x11223344 by order code
    const char* words16[] = {"3412", "1234", "3412", "1234"};
    const char* floats[] = {"0000c03f", "00003fc0", "c03f0000", "3fc00000"};  // 1.5
    for (unsigned code = 0; code < 4; ++code) {
        EXPECT_EQ(image("s1:a1:u32@0", static_cast<std::uint16_t>(code << 4 | 0x202), "287454020"), words32[code]);
        EXPECT_EQ(image("s1:a1:s16@0", static_cast<std::uint16_t>(code | 0x220), "4660"), words16[code]);
        EXPECT_EQ(image("s1:a1:float@0", static_cast<std::uint16_t>(code << 8 | 0x022), "1.5"), floats[code]);
    }
    EXPECT_EQ(image("s1:a1:double@0", 0xFFFF, "1.5"), "000000000000f83f");
    EXPECT_EQ(image("s1:a1:double@0,big_endian", 0, "1.5"), "3ff8000000000000");
    EXPECT_EQ(image("s1:a1:u32@0,bcd", 0x10, "12345678"), "56781234");
    EXPECT_EQ(image("s1:a1:raw:3@0,big_endian", 0xFFFF, "0a0b0c"), "0a0b0c");
}

TEST(Change, DescriptorsAreExact)
{
    const char *word = "s1:a1:u16@10*3", *one = "s1:a1:s16@10";
    EXPECT_EQ(ChangeHex(one, 1, {"add", {"2"}, "-1", "0x7f", true, false, true}),
              "10*1 c0 0100000001800200"
              "0200ffff7f00");
    EXPECT_EQ(ChangeHex("s1:a1:double@10", 0, {"sub", {"1.5"}, "0", {}, false, true, false}),
              "10*1 80 0200000004400800"
              "000000000000f83f0000000000000000ffffffffffffef7f");
    EXPECT_EQ(ChangeHex(word, 1, {"and", {"0x1234"}, {}, {}}), "10*3 80 0300000002000600123412341234");
    EXPECT_EQ(ChangeHex("s1:a1:bit@4*2", 1, {"not", {}, {}, {}}), "4*2 80 05000000020002000101");
    EXPECT_EQ(ChangeHex(word, 1, {"toggle", {"35"}, {}, {}}), "12*1 80 0a000b0000000000");
    EXPECT_EQ(ChangeHex("s1:a1:u32@10,unit=1", 0x20, {"set", {"20"}, {}, {}}), "10*1 20 0b00040001000000");
}

TEST(Change, FieldsNameTheElementsTheyTouch)
{
    const char* word = "s1:a1:u16@10*3";
    EXPECT_EQ(ChangeHex(word, 0, {"field", {"20", "20", "0xabcde"}, {}, {}}),
              "11*2 80 0110000002000200"
              "04001400debc0a00");
    EXPECT_EQ(ChangeHex(word, 1, {"field", {"24", "8", "0x5a"}, {}, {}}),
              "11*1 80 0110000002000200"
              "000008005a000000");
    EXPECT_EQ(ChangeHex(word, 1, {"field", {"16", "32", "0x12345678"}, {}, {}}),
              "11*2 80 0110000002000200"
              "0000200056781234");
    const auto error = [&](const char* expression, std::uint16_t order, std::vector<std::string> operands) {
        return ErrorOf([&] { ChangeHex(expression, order, {"field", std::move(operands), {}, {}}); });
    };
    EXPECT_HAS(error(word, 1, {"20", "8", "1"}), "no single run of bits");
    EXPECT_HAS(error(word, 0, {"40", "9", "1"}), "beyond the range's 48 bits");
    EXPECT_HAS(error("s1:a1:u16@10*3,unit=4", 0, {"16", "4", "1"}), "does not begin at an address");
    EXPECT_HAS(error("s1:a1:bit@10*3", 0, {"0", "2", "1"}), "written with write");
}

TEST(Change, NumbersGoByTheWordAlone)
{
    const voq::ChangeText add = {"add", {"1"}, {}, {}};
    EXPECT_EQ(ChangeHex("s1:a1:u16@0,big_endian", HighFirst, add), ChangeHex("s1:a1:u16@0,big_endian", 3, add));
    EXPECT_HAS(ErrorOf([&] { ChangeHex("s1:a1:u16@0,big_endian", 2, add); }), "byte-order word says");
    EXPECT_HAS(ErrorOf([&] { ChangeHex("s1:a1:u32@0,big_endian", 0x111, add); }), "byte-order word says");
    EXPECT_HAS(ErrorOf([&] { ChangeHex("s1:a1:bit@0", 0, add); }), "not for a register of type bit");
}

// A FIFO with a reader: what a running service looks like to a client.
struct Listening : Folder {
    int fifo = -1;
    Listening()
    {
        if (mkfifo(port.MekFifo().c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
        fifo = open(port.MekFifo().c_str(), O_RDWR | O_CLOEXEC);
    }
    ~Listening() { Leave(); }
    void Leave()
    {
        if (fifo >= 0) close(fifo);
        fifo = -1;
    }

    voq::OneShot Request(std::uint16_t fileno) const
    {
        voq::OneShot request;
        request.fifo = port.MekFifo();
        request.fileno = fileno;
        request.frame = voq::ReadFrame(Key(1, 1, 0x22, 0, 1), fileno);
        request.timeout = std::chrono::milliseconds(30);
        return request;
    }
    void Answer(std::uint16_t fileno, std::uint8_t result, std::uint16_t next) const
    {
        Bytes file;
        RtItem item = {};
        item.key = Key(1, 1, 0x22, 0, 1);
        item.result = result;
        item.next = next;
        item.fileno = fileno;
        voq::PutRecord(file, 0, item);
        Save(port.Result(fileno), file);
    }
    bool Gone(std::uint16_t fileno) const
    {
        for (int i = 0; i < 500 && std::filesystem::exists(port.Result(fileno)); ++i) usleep(10000);
        return !std::filesystem::exists(port.Result(fileno));
    }
};

TEST(OneShot, AnswersDoNotStay)
{
    Listening box;
    box.Answer(7, PLC_ERROR, 0xFFFF);
    auto answer = voq::Ask(box.port, box.Request(7));
    ASSERT_TRUE(answer);
    EXPECT_FALSE(voq::WasRefused(*answer));
    EXPECT_FALSE(std::filesystem::exists(box.port.Result(7)));
    box.Answer(8, PLC_ERROR, 0);
    answer = voq::Ask(box.port, box.Request(8));
    EXPECT_TRUE(answer && voq::WasRefused(*answer));

    box.Answer(8, PLC_SUCCESS, 0xFFFF);
    voq::OneShot request = box.Request(8);
    request.frame = voq::ReadFrame(Key(1, 1, 0x22, 1, 1), 8);
    EXPECT_HAS(ErrorOf([&] { voq::Ask(box.port, request); }), "another client");
    request = box.Request(9);
    EXPECT_FALSE(voq::Ask(box.port, request));
    request.timeout = std::chrono::hours(1);
    request.stopped = [] { return true; };
    EXPECT_FALSE(voq::Ask(box.port, request));
    voq::RemoveLater(box.port, request, std::chrono::seconds(60));
    usleep(50000);
    box.Answer(9, PLC_SUCCESS, 0xFFFF);
    EXPECT_TRUE(box.Gone(9));
    // One that was cut short never becomes whole: it goes with the end of the wait, or of the service.
    Save(box.port.Result(10), Bytes(12));
    voq::RemoveLater(box.port, box.Request(10), std::chrono::milliseconds(100));
    EXPECT_TRUE(box.Gone(10));
    Save(box.port.Result(11), Bytes(12));
    box.Leave();
    voq::RemoveLater(box.port, box.Request(11), std::chrono::seconds(60));
    EXPECT_TRUE(box.Gone(11));
}

TEST(Prepare, IsSoundAndComparesEqualToItself)
{
    std::mt19937 random(3);
    voq::Project project;
    project.ports.resize(2);
    project.ports[1].portNo = 1;
    for (int i = 0; i < 500; ++i) {
        const auto any = [&](unsigned n) { return static_cast<std::uint16_t>(random() % n); };
        RegKey key = Key(static_cast<std::uint8_t>(any(2)), any(3), any(2) == 0 ? 0x22 : 0x14, any(40), any(4), any(2));
        key.portno = any(2);
        project.registers.push_back(key);
    }
    const voq::Snapshot db = voq::PrepareDatabase(project, 1, {5, 6}).files;
    EXPECT_FALSE(voq::HasViolation(voq::CheckSnapshot(db)));
    EXPECT_GT(db.org.RecordsInFile(), 100u);
    EXPECT_TRUE(voq::CompareSnapshots(db, db).empty());
    voq::Snapshot other = voq::PrepareDatabase(project, 1, {7, 8}).files;
    EXPECT_TRUE(voq::CompareSnapshots(db, other).empty()) << "stamps";
    // Each place counts.
    for (Bytes* bytes : {&other.org.bytes, &other.index, &*other.maps.begin()->second}) {
        const std::size_t at = bytes == &other.org.bytes ? 12 + 48 : bytes->size() - 1;
        (*bytes)[at] ^= 1;
        EXPECT_EQ(voq::CompareSnapshots(db, other).size(), 1u);
        (*bytes)[at] ^= 1;
    }
    ++other.dataSize;
    other.maps.erase(other.maps.begin());
    EXPECT_EQ(voq::CompareSnapshots(db, other).size(), 2u);
    EXPECT_HAS(ErrorOf([&] { voq::PrepareDatabase(project, 2, {}); }), "there is no port 2: the project has 2");
}

}  // namespace
