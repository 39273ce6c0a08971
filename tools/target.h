// Which port a command is about, from its options and the project's description.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/description/description.h"
#include "client/error.h"
#include "client/file_number.h"
#include "client/port_dir.h"
#include "client/register.h"

// Arguments that make no sense.
class UsageError : public voq::Error
{
public:
    using voq::Error::Error;
};

struct PortOptions {
    std::string dir;                      // user data directory
    std::optional<std::string> link;      // with number; ethernet without it
    std::optional<std::uint16_t> number;  // port number
    std::string project;                  // TOML description
    std::vector<std::string> drivers;     // where drivers lie, empty for the usual places
    std::optional<std::uint16_t> index;   // place of the port in the project
    std::string fifo = "mek";
    voq::FileNumberRange numbers;
    std::optional<std::uint16_t> byteOrder;  // in place of the project's and the service's words
};

// The byte-order words that a running service goes by.
struct ServiceOrder {
    std::uint16_t port = 0;
    std::uint16_t panel = 0;
};

struct Target {
    voq::PortDir port;
    std::string fifo;
    std::uint16_t index = 0;  // of its watchdog counter
    bool indexKnown = false;  // false: nobody said it
    std::optional<voq::Description> project;
    std::optional<std::uint16_t> byteOrder;
    std::optional<ServiceOrder> service;  // none runs, or none that shows its statistics
};

// Throws UsageError.
Target Resolve(const PortOptions& options);

// The directories of drivers that an option gives, or the usual ones.
voq::DriverDirs DriverDirsOf(const std::vector<std::string>& given);

// Every port of the project. Throws UsageError.
std::vector<Target> ResolveAll(PortOptions options);

// A register of the target's port: a name of its project, or an expression, which has no name and no meaning. Throws
// UsageError.
voq::DescribedRegister ResolveRegister(const Target& target, const std::string& text);

// A range as the project describes it, or with the type of its element size, without a name.
voq::DescribedRegister Describe(const Target& target, const RegKey& key);

// The byte-order word for a range: the panel's for its own registers, else the port's. It is that of the option, of the
// project, or of the service that runs, in this order; 0 where nothing tells.
std::uint16_t ByteOrderOf(const Target& target, const RegKey& key);

// True when something tells the words.
bool ByteOrderKnown(const Target& target);
// True when a range's values hang on a byte-order word and nothing gives one.
bool ByteOrderMissing(const Target& target, const voq::Register& reg);
// For what changes a value: throws UsageError when the word is missing, and says on standard error that the running
// service goes by another one.
void RequireByteOrder(const Target& target, const voq::Register& reg, const std::string& what);
// For what shows a value: says on standard error that the word is missing.
void NoteByteOrder();
