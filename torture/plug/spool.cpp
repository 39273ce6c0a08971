// The bridge's spool in the machine whose plug is pulled, a program of its own beside the service: spool FILE SEED.
// Says which samples a start finds, then adds more, each with the next number, writes them and strikes them off from
// the front; the last one always stays. What may be relied on is said behind the fact, what is begun before.
#include "upstream/mqtt/spool.h"

#include <termios.h>
#include <unistd.h>

#include <iostream>
#include <random>
#include <utility>

#include "client/error.h"

namespace
{
using voq::mqtt::Spool;

constexpr unsigned MostWrites = 100000, MostAdded = 60, MostTaken = 62, MostPause = 50000;  // us
constexpr std::uint64_t FileBytes = 256 * 1024;                                             // never full

std::int64_t NumberOf(const voq::mqtt::Sample& sample)
{
    return std::get<std::int64_t>(sample.value.at(0));
}

// What is there, in its order; all of it is to be taken again. The number of the last one.
std::int64_t LookAtAll(Spool& spool)
{
    std::int64_t first = 1, last = 0;
    for (auto taken = spool.Take(MostTaken); !taken.empty(); taken = spool.Take(MostTaken)) {
        if (last == 0) first = NumberOf(taken.front());
        for (const auto& each : taken) {
            const std::int64_t before = std::exchange(last, NumberOf(each));
            if (before != 0 && last != before + 1)
                std::cout << "@fault spool: " << last << " behind " << before << '\n';
        }
    }
    std::cout << "@spool " << first << ' ' << last << std::endl;
    spool.Rewind();
    return last;
}

// Adds some, strikes some off, and writes.
void Step(Spool& spool, std::mt19937& random, std::int64_t& last, std::int64_t& told)
{
    for (auto left = random() % MostAdded; left > 0; --left) {
        spool.Add({0, voq::mqtt::State::Good, ++last, last, {last}});
    }
    auto taken = spool.Take(random() % MostTaken);
    if (!taken.empty() && NumberOf(taken.back()) == last) taken.pop_back();
    if (!taken.empty()) {
        std::cout << "@telling " << (told = NumberOf(taken.back())) << std::endl;
        tcdrain(STDOUT_FILENO);
    }
    spool.Done(taken.size());
    spool.Rewind();
    spool.Flush();
    std::cout << "@spooled " << last << ' ' << told << std::endl;
}
}  // namespace

int main(int, char** arguments)
{
    std::mt19937 random(static_cast<unsigned>(std::stoul(arguments[2])));
    std::string fault;
    try {
        Spool spool({.file = arguments[1], .bytes = FileBytes}, {"register"});
        std::int64_t last = LookAtAll(spool), told = 0;
        for (unsigned i = 0; i < MostWrites && (fault = spool.Remark()).empty(); ++i) {
            Step(spool, random, last, told);
            usleep(static_cast<useconds_t>(random() % MostPause));
        }
    } catch (const std::exception& error) {
        fault = error.what();
    }
    std::cout << "@fault spool: " << fault << std::endl;
    return 1;
}
