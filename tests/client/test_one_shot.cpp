// One-shot requests up to their frames, and what becomes of answers. What the service makes of the
// requests is tested with the service.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/change.h"
#include "client/one_shot.h"
#include "client/value_text.h"
#include "tests/client/client_fixture.h"
#include "voq/rt_item.h"

using voq::Bytes;

namespace
{

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
    const auto bcd = voq::CodingOf(voq::ParseExpression("s1:a1:u16@0,bcd", 1), 0);
    EXPECT_EQ(voq::ValueText(bcd, Bytes{0xC0, 0x49, 1, 2}, 1), "0x49c0(no bcd) ...");
}

TEST(Change, DescriptorsNameTheElementsTheyTouch)
{
    const char *word = "s1:a1:u16@10*3", *one = "s1:a1:s16@10";
    EXPECT_EQ(ChangeHex(one, 1, {"add", {"2"}, "-1", "0x7f", true, false, true}),
              "10*1 c0 01000000018002000200ffff7f00");
    EXPECT_EQ(ChangeHex("s1:a1:u32@10,unit=1", 0x20, {"set", {"20"}, {}, {}}), "10*1 20 0b00040001000000");
    EXPECT_EQ(ChangeHex(word, 1, {"toggle", {"35"}, {}, {}}), "12*1 80 0a000b0000000000");
    const auto field = [&](std::uint16_t order, std::vector<std::string> operands) {
        return ChangeHex(word, order, {"field", std::move(operands), {}, {}});
    };
    EXPECT_EQ(field(0, {"20", "20", "0xabcde"}), "11*2 80 011000000200020004001400debc0a00");
    EXPECT_EQ(field(1, {"24", "8", "0x5a"}), "11*1 80 0110000002000200000008005a000000");
    EXPECT_EQ(field(1, {"16", "32", "0x12345678"}), "11*2 80 01100000020002000000200056781234");
    EXPECT_HAS(ErrorOf([&] { field(0, {"40", "9", "1"}); }), "beyond the range's 48 bits");
}

// What others leave behind under a request's number; that late answers go is tested with the service.
TEST(OneShot, TakesNoOtherAnswerAndLeavesNoRuin)
{
    Folder folder;
    const auto removed = [&](std::uint16_t fileno) {
        for (int i = 0; i < 500 && std::filesystem::exists(folder.port.Result(fileno)); ++i) usleep(10000);
        return !std::filesystem::exists(folder.port.Result(fileno));
    };
    ASSERT_EQ(mkfifo(folder.port.MekFifo().c_str(), 0600), 0);
    const int fifo = open(folder.port.MekFifo().c_str(), O_RDWR | O_CLOEXEC);
    voq::OneShot request;
    request.fifo = folder.port.MekFifo();
    request.fileno = 8;
    request.frame = voq::ReadFrame(Key(1, 1, 0x22, 1, 1), 8);
    request.timeout = std::chrono::milliseconds(30);
    RtItem item = {};
    item.key = Key(1, 1, 0x22, 0, 1);
    item.fileno = 8;
    item.result = PLC_SUCCESS;
    item.next = 0xFFFF;
    Bytes file;
    voq::PutRecord(file, 0, item);
    Save(folder.port.Result(8), file);
    EXPECT_HAS(ErrorOf([&] { voq::Ask(folder.port, request); }), "another client");
    // One that was cut short never becomes whole: it goes with the end of the wait, or of the service.
    Save(folder.port.Result(8), Bytes(12));
    voq::RemoveLater(folder.port, request, std::chrono::milliseconds(100));
    EXPECT_TRUE(removed(8));
    Save(folder.port.Result(8), Bytes(12));
    close(fifo);
    voq::RemoveLater(folder.port, request, std::chrono::seconds(60));
    EXPECT_TRUE(removed(8));
    Save(folder.port.GuiFifo(), {});
    EXPECT_HAS(ErrorOf([&] { voq::SendFrame(folder.port.GuiFifo(), Bytes(35)); }), "not a FIFO");
}

}  // namespace
