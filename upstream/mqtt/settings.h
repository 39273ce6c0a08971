// The settings file of voq-mqtt: docs/mqtt.md has the keys. Reading takes files only; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace voq::mqtt
{

enum class Convention : std::uint8_t { Plain, Sparkplug };

struct BrokerSettings {
    std::string host;
    std::uint16_t port = 0;
    int version = 5;  // of MQTT: 5, or 4 for 3.1.1
    std::string clientId;
    std::string user, password;  // both empty: none
    std::chrono::seconds keepalive{15};
    // TLS when `tls`; the broker's name and chain are always checked.
    bool tls = false;
    std::string ca;                // file; empty: the system's
    std::string certificate, key;  // files; empty: none
    std::chrono::milliseconds firstRetry{1000}, longestRetry{10000};
};

struct SpoolSettings {
    std::string file = "/run/voq-mqtt/spool";
    std::uint64_t bytes = 16u << 20;  // of the file at most
    unsigned writesPerMinute = 6;
};

// How a register is told.
struct TellRule {
    double deadband = 0;  // of the scaled value: only what is further from what was told last
    std::chrono::milliseconds least{0}, most{60000};  // between two messages; most 0: never without a change
    bool writable = false;
};

struct Pattern {
    std::string text;      // of names; "*" stands for any characters
    std::size_t line = 0;  // of the file
};

// The first of them whose pattern fits a register says how it is told; one that none fits is not told.
struct TellGroup {
    std::vector<Pattern> patterns;
    TellRule rule;
};

struct Settings {
    std::string file;
    std::string box;  // edge node of Sparkplug
    Convention convention = Convention::Plain;
    std::string base = "voq";  // plain: first level of every topic; Sparkplug: the group
    std::string primaryHost;   // of Sparkplug; empty: none is waited for
    BrokerSettings broker;
    SpoolSettings spool;
    std::vector<TellGroup> groups;  // at least one
};

// Throws Error "<file>:<line>: <text>" for the first thing that is wrong.
Settings LoadSettings(const std::string& file);

}  // namespace voq::mqtt
