// Takes a refused read apart: by halves, in the order of the ranges, until each part is answered or is one range alone.
// Main thread; no locks. It counts ranges only: the pass goes back to where the read began and makes the parts with the
// plans that it makes anyway. What comes in between, a list that changed or a time-out, ends it, and the next refusal
// begins anew.
#pragma once

#include <cstdint>

#include "voq/reg_key.h"

class Halving
{
public:
    static constexpr std::uint32_t AnyNumber = UINT32_MAX;

    // How many ranges the read that begins at `start` may take.
    [[nodiscard]] std::uint32_t Most(const RegKey& start);

    // What the read came to; `ranges` is the number that it took.
    void Refused(const RegKey& read, std::uint32_t ranges);  // more than one: two parts take its place
    // Any other result. True when the part in front of it was answered as well as this one, and the two were refused
    // together.
    bool Done(std::uint32_t ranges, bool answered);

private:
    [[nodiscard]] bool Running() const { return count_ != 0; }
    void End() { count_ = 0; }

    // A 32-bit number is halved at most 32 times; each time leaves one part behind.
    static constexpr int MostParts = 33;
    struct Part {
        std::uint32_t ranges;
        bool second;         // of two halves
        bool firstAnswered;  // the half in front of it was answered
    };

    RegKey whole_{};  // the read that was refused first
    Part parts_[MostParts]{};
    int count_ = 0;  // parts to read, the next one last
};
