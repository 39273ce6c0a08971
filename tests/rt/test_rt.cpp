// One-shot requests from admission to answer: real files, and a PLC of 128 KB of memory behind the driver's entry
// point.
#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "arch/clock.h"
#include "list/log_on_off.h"
#include "list/rt_list.h"
#include "oper/rt_pass.h"
#include "state/com_state.h"
#include "support/capture.h"
#include "support/scratch.h"
#include "voq/chg_desc.h"

namespace
{
std::string Memory(0x20000, '\0');

void Plc(const PlcRequest& request, bool write)
{
    char* place = Memory.data() + request.key->addr * UnitBytes(*request.key);
    void *const to = write ? place : request.data, *const from = write ? request.data : place;
    std::memcpy(to, from, static_cast<std::size_t>(request.length));
}

std::string Raw(const auto& value)
{
    return {reinterpret_cast<const char*>(&value), sizeof value};
}
std::string Word(unsigned value)
{
    return Raw(static_cast<std::uint16_t>(value));
}
std::string Change(unsigned operation, unsigned bit, unsigned format, unsigned size, const std::string& operands = "")
{
    const std::string desc = Word(operation) + Word(bit) + Word(format) + Word(size) + operands;
    return Word(static_cast<unsigned>(desc.size())) + Word(0) + desc;
}
std::string Pulse(unsigned tenths)
{
    return Change(12, 0, 1, tenths);
}

class Rt : public testing::Test
{
protected:
    Rt()
    {
        ResetRtList();
        ComInfo = {};
        ComInfo.wordLimit = 64;
        isHmi = 1;
        pack_disable = comIntervals = 0;
        MaxRtList = 3;
        VoqStartTime = {};
        FakeDriver::Use();
        FakeDriver::Serve = Plc;
        for (std::size_t i = 0; i < Memory.size(); ++i) Memory[i] = static_cast<char>(i * 7 + i / 256);
    }

    std::uint16_t Add(const RegKey& key, unsigned listcmd, int number, const std::string& payload = "")
    {
        const auto fileno = static_cast<std::uint16_t>(number);
        const RegRequest request{key, static_cast<std::uint8_t>(listcmd), 0, fileno, 0};
        // In a buffer of its own size, so that a sanitizer sees a read behind the payload.
        const std::vector<unsigned char> bytes(payload.begin(), payload.end());
        return AddRtList(request, static_cast<std::uint16_t>(listcmd), fileno, bytes.data(),
                         static_cast<std::uint32_t>(bytes.size()));
    }
    std::uint16_t Add(std::uint32_t addr, unsigned listcmd, int fileno, const std::string& payload = "")
    {
        return Add(WordKey(addr, 1), listcmd, fileno, payload);
    }
    // The transfers of one pass: "r90x18 " and "w5x1 " by address and width.
    static std::string Pass()
    {
        OperRtList();
        std::string log;
        for (const auto& [command, key, length, data] : FakeDriver::Transfers()) {
            log += (command == "WrOne" ? "w" : "r") + std::to_string(key.addr) + "x" + std::to_string(key.width) + " ";
        }
        return log;
    }
    [[nodiscard]] std::string Path(int fileno, const char* prefix = "") const
    {
        return scratch.Folder() + prefix + std::to_string(fileno);
    }
    // The result byte of a request's answer, -1 while there is none.
    [[nodiscard]] int Result(int fileno) const
    {
        const std::string file = FileBytes(Path(fileno));
        return file.size() < sizeof(RtItem) ? -1 : static_cast<unsigned char>(file[26]);
    }
    [[nodiscard]] std::string Answer(int fileno) const
    {
        const std::string file = FileBytes(Path(fileno));
        return file.size() < sizeof(RtItem) ? "none" : file.substr(sizeof(RtItem));
    }

    Scratch scratch;
};

TEST_F(Rt, LinksFollowAModel)
{
    std::deque<std::uint16_t> model;
    std::mt19937 random(7);
    bool wrapped = false;
    for (int round = 0; round < 4000; ++round) {
        if (model.size() > 1 && random() % 100 < 45) {
            const std::size_t at = random() % 3 == 0 ? 0 : random() % 2 ? model.size() - 1 : random() % model.size();
            DelRtList(model[at]);
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
        } else {
            RegKey key = WordKey(1, 1);
            key.flag |= random() % 3 == 0 ? REG_FLAG_URGENT : 0;
            const std::uint16_t hint = GuiListHead.hint;
            const std::uint16_t slot = Add(key, 3, round);
            ASSERT_EQ(std::exchange(GuiRtList[slot].pulsetime, 5), 0u);
            wrapped = wrapped || (hint == RtSlots - 1 && slot == 1);
            model.insert((key.flag & REG_FLAG_URGENT) != 0 ? model.begin() : model.end(), slot);
        }
        ASSERT_EQ(GuiListHead.count, model.size());
        ASSERT_EQ(rtDataFileCount, static_cast<int>(model.size()));
        ASSERT_EQ(GuiListHead.head, model.front());
        ASSERT_EQ(GuiListHead.tail, model.back());
        for (std::size_t i = 0; i < model.size(); ++i) {
            ASSERT_EQ(GuiRtList[model[i]].prev, i == 0 ? 0 : model[i - 1]);
            ASSERT_EQ(GuiRtList[model[i]].next, i + 1 == model.size() ? RtEnd : model[i + 1]);
        }
    }
    EXPECT_TRUE(wrapped);
    for (const std::uint16_t slot : model) DelRtList(slot);
    EXPECT_EQ(GuiListHead.count + GuiListHead.head + GuiListHead.tail, 0);
    for (int i = 0; i <= 1000; ++i) EXPECT_NE(Add(1u, 3, i), 0);
    for (const std::string& payload : {Pulse(1), Change(11, 0, 1, 0)}) {
        EXPECT_EQ("*VOQ*rtDatafile too much,=1001\r\n", Output([&] { EXPECT_EQ(0, Add(1u, 0x2006, 2000, payload)); }));
        EXPECT_EQ(Result(2000), 3);
    }
}

TEST_F(Rt, AdmissionAndFiles)
{
    const struct {
        int listed, timeout, comError;
        unsigned operation;
        int code;  // of the refusal, -1 when listed
    } cases[] = {{2, 1, 1, 12, -1}, {3, 1, 1, 12, 4}, {3, 0, 1, 12, 3}, {3, 1, 0, 11, -1}, {3, 0, 0, 12, -1}};
    for (const auto& each : cases) {
        ResetRtList();
        for (int i = 0; i < each.listed; ++i) Add(1u, 3, i);
        GlobeTimeout = each.timeout;
        GlobeComError = each.comError;
        const std::string payload = Change(each.operation, 0, 1, 5);
        std::filesystem::remove(Path(50));
        EXPECT_EQ(Add(9u, 0x2006, 50, payload + "behind") == 0, each.code != -1);
        EXPECT_EQ(Result(50), each.code);
        if (each.code != -1) {
            const RtItem expected{WordKey(9, 1), 0x2006, static_cast<std::uint8_t>(each.code), 1, 0, 0, 50, 0, 0};
            EXPECT_EQ(FileBytes(Path(50)), Raw(expected));
        } else {
            EXPECT_EQ(FileBytes(Path(50, "rtData")), payload);
        }
        GlobeTimeout = GlobeComError = 0;
    }
    ResetRtList();
    std::filesystem::create_directory(Path(66, "rtData"));
    EXPECT_EQ(Add(WordKey(1, 2), 7, 60, "abc"), 0);             // four bytes needed
    EXPECT_EQ(Add(1u, 0x8006, 61, "\x05"), 0);                  // not even the count
    EXPECT_EQ(Add(1u, 0x8006, 62, Pulse(1).substr(0, 11)), 0);  // less than it counts
    EXPECT_EQ(Add(WordKey(1, 0x8081, 0x12), 3, 63), 0);         // more than any buffer holds
    EXPECT_EQ(Add(1u, 7, 66, "ab"), 0);                         // its file cannot be created
    for (const int fileno : {60, 61, 62, 63, 66}) EXPECT_EQ(Result(fileno), 3) << fileno;
    EXPECT_EQ(rtDataFileCount, 0);
    EXPECT_EQ(Pass(), "");
}

TEST_F(Rt, ReadsWidenAndAnswerEachOther)
{
    ComInfo.wordLimit = 18;  // just what the first four, and the last two, take
    int fileno = 0;
    for (const auto& [addr, width] : {std::pair{100u, 4}, {104, 4}, {100, 2}, {90, 2}, {105, 4}, {300, 4}, {314, 4}}) {
        RegKey key = WordKey(addr, static_cast<std::uint16_t>(width));
        if (width == 2 && addr == 100) key.flag |= REG_FLAG_GROUP;  // widens, is never read through the driver
        Add(key, 3, ++fileno);
    }
    EXPECT_EQ(Pass(), "r90x18 r105x4 r300x18 ");
    EXPECT_EQ(Answer(3), std::string(4, '\0'));
    for (const auto& [number, at, bytes] : {std::array{1, 200, 8}, {2, 208, 8}, {4, 180, 4}, {5, 210, 8}, {7, 628, 8}})
        EXPECT_EQ(Answer(number), Memory.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(bytes)));
    EXPECT_EQ(GuiListHead.count, 0);

    pack_disable = 1;
    for (std::uint16_t i = 0; i < 6; ++i) Add(10u + i, 3, 10 + i);
    EXPECT_EQ(Pass(), "r10x1 r11x1 r12x1 r13x1 ");
    FakeDriver::Script = {2, 2, 2};
    EXPECT_EQ(Pass(), "r14x1 r14x1 r14x1 r15x1 ");
    EXPECT_EQ(Result(14), 2);
    EXPECT_EQ(Answer(14), "");
    EXPECT_EQ(Result(15), 1);

    // Elements smaller than the address unit: not widened; a longer value is not cut out of a shorter read.
    pack_disable = 0;
    Add(WordKey(20, 3, 0x21), 3, 20);
    Add(WordKey(20, 5, 0x21), 3, 21);
    Add(WordKey(20, 2, 0x21), 3, 22);
    EXPECT_EQ(Pass(), "r20x3 r20x5 ");
    EXPECT_EQ(Answer(20) + Answer(21) + Answer(22), Memory.substr(40, 3) + Memory.substr(40, 5) + Memory.substr(40, 2));

    // A widening that no buffer could hold is not made, whatever the limit.
    ComInfo.wordLimit = 0xFFFF;
    Add(WordKey(0, 4), 3, 23);
    Add(WordKey(40000, 1), 3, 24);
    EXPECT_EQ(Pass(), "r0x4 r40000x1 ");
}

TEST_F(Rt, GatewayLooksAtTenEntriesPerAnswer)
{
    pack_disable = 1;
    MaxRtList = 0;
    // The last entry lies just beyond what two answers, or one, allow; on a panel, or with one entry fewer, it is
    // reached.
    for (const auto& [panel, fewer] : {std::pair{0, 0}, {1, 0}, {0, 1}}) {
        for (const bool write : {false, true}) {
            isHmi = static_cast<std::uint16_t>(panel);
            const int entries = write ? 11 : 20;
            Add(5u, write ? 7 : 3, 100, "ab");
            for (int i = fewer; i < entries; ++i) Add(200u + static_cast<unsigned>(i), write ? 0x8006 : 3, i, Pulse(1));
            Add(5u, write ? 7 : 3, 101, "ab");
            EXPECT_EQ(Pass(), write ? "w5x1 " : "r5x1 ");
            EXPECT_EQ(Result(101), panel + fewer == 0 ? -1 : 1);
            ResetRtList();
            std::filesystem::remove(Path(101));
        }
    }
}

TEST_F(Rt, WritesServeEqualOnesAndStopAtDifferent)
{
    Add(5u, 7, 1, "ab");
    Add(6u, 7, 2, "cd");
    Add(5u, 7, 3, "ab");
    Add(5u, 7, 4, "xy");
    Add(5u, 7, 5, "ab");
    EXPECT_EQ(Pass(), "w5x1 w6x1 w5x1 w5x1 ");
    EXPECT_EQ(Memory.substr(10, 4), "abcd");
    for (int fileno = 1; fileno <= 5; ++fileno) {
        EXPECT_EQ(Result(fileno), 1);
        EXPECT_EQ(Answer(fileno), "");
        EXPECT_FALSE(std::filesystem::exists(Path(fileno, "rtData")));
    }
    for (std::uint16_t i = 0; i < 10; ++i) Add(50u + i, 7, 10 + i, "ab");
    EXPECT_EQ(Pass(), "w50x1 w51x1 w52x1 w53x1 ");
    std::filesystem::remove(Path(14, "rtData"));
    std::ofstream(Path(15, "rtData")) << "a";
    FakeDriver::Script = {7, 7, 7};
    const std::string output = Output([&] { EXPECT_EQ(Pass(), "w56x1 w56x1 w56x1 w57x1 "); });
    EXPECT_NE(output.find("*VOQ*Rt write fileopen error\r\n"), std::string::npos);
    EXPECT_NE(output.find("*VOQ*wr read " + Path(15, "rtData") + " ret=0,rtcount=1\r\n"), std::string::npos);
    for (const int fileno : {14, 15, 16}) EXPECT_EQ(Result(fileno), 3);
    EXPECT_EQ(Result(17), 1);

    std::filesystem::create_directory(Path(18));  // its answer cannot be created: removed, the pass goes on
    EXPECT_EQ(Pass(), "w58x1 w59x1 ");
    EXPECT_EQ(GuiListHead.count, 0);
}

TEST_F(Rt, ChangesAndPulses)
{
    Memory.replace(10, 2, Word(99));
    Add(5u, 0x8006, 1, Change(1, 0, 0x4002, 2, Word(1) + Word(0) + Word(100)));
    Add(5u, 0x8006, 2, Change(1, 0, 0x4002, 2, Word(1)));  // operands missing
    Add(6u, 6, 3, Word(2) + Word(0) + "hi");
    Add(6u, 6, 4, Word(1) + Word(0) + "h");
    Add(7u, 0x8006, 5, Change(6, 0, 0, 0));
    std::filesystem::remove(Path(5, "rtData"));
    MaxRtList = 4;
    EXPECT_EQ(Pass(), "r5x1 w5x1 w6x1 ");
    EXPECT_EQ(Answer(1), Word(0x4001));
    EXPECT_EQ(Memory.substr(10, 4), Word(100) + "hi");
    EXPECT_EQ(Result(2) * 100 + Result(4) * 10 + Result(5), 333);
    EXPECT_EQ(Answer(3), Word(1));

    // Five pulses at the head of writes: a pass tries four of them, and one more turn goes to the next that waits: the
    // fifth pulse first, then writes.
    MaxRtList = 3;
    for (std::uint16_t i = 0; i < 5; ++i) Add(20u + i, 0x2006, 20 + i, Pulse(600));
    for (std::uint16_t i = 0; i < 6; ++i) Add(30u + i, 7, 30 + i, "ab");
    EXPECT_EQ(Pass(), "r20x1 w20x1 r21x1 w21x1 r22x1 w22x1 r23x1 w23x1 r24x1 w24x1 ");
    EXPECT_EQ(Pass(), "w30x1 ");
    EXPECT_EQ(Pass(), "w31x1 w32x1 w33x1 ");
    EXPECT_EQ(Pass(), "w34x1 ");
    for (std::uint16_t slot = 1; slot < RtSlots; ++slot) GuiRtList[slot].pulsetime -= GuiRtList[slot].inuse * 60000u;
    EXPECT_EQ(Pass(), "r24x1 w24x1 w35x1 ");
    EXPECT_EQ(Pass(), "r20x1 w20x1 r21x1 w21x1 r22x1 w22x1 r23x1 w23x1 ");
    EXPECT_EQ(Answer(24), Word(1));
    EXPECT_EQ(GuiListHead.count, 0);
}

TEST_F(Rt, FreshValuesReachSubscribedRanges)
{
    // Records in order of log-on: offsets 12, 68, 124, 180.
    for (const RegKey& key : {WordKey(100, 2), WordKey(103, 1), WordKey(103, 4), WordKey(104, 1)}) {
        const RegRequest request{key, 1, 0, static_cast<std::uint16_t>(key.addr + key.width), 0};
        EXPECT_EQ(LogOnOff2OrgList(&request, OrgMode::LogOn, request.fileno), 0);
    }
    const auto states = [] {
        std::string out;
        for (std::uint32_t at = 12; at < 236; at += 56)
            out += std::to_string(ReadOrgNode(FileBytes(OrgFileName), at).state);
        return out;
    };
    Add(WordKey(101, 4), 3, 10);  // nothing is subscribed at 101
    Pass();
    EXPECT_EQ(states(), "0000");
    Add(WordKey(100, 5), 3, 11);
    Pass();
    EXPECT_EQ(states(), "1101");
    EXPECT_EQ(FileBytes(DataFileName),
              Memory.substr(200, 4) + Memory.substr(206, 2) + std::string(8, '\0') + Memory.substr(208, 2));
}
}  // namespace
