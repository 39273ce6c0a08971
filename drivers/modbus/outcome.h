// What became of a request.
#pragma once

#include <cstdint>

enum class Outcome : std::uint8_t {
    Done,
    Refused,       // the station, or a gateway for it, answered with an exception
    NoAnswer,      // not a byte in time
    CutOff,        // not all of the answer in time
    WrongNumber,   // an answer with a transaction number that is not the request's
    WrongStation,  // an answer of another station
    OtherAnswer,   // of the right station, but to another request
    Unsure,        // two answers: the first was a late one
    NotModbus,     // something else altogether
    Broken         // the connection or the line failed
};
inline constexpr unsigned Outcomes = 10;

struct Reply {
    Outcome outcome;
    std::uint8_t detail;  // the code of an exception, the station that answered
    int error;            // an errno value, when the connection broke
};
