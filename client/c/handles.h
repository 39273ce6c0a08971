// What stands behind the handles of voq/client.h, and the border: no exception leaves a function of the C interface,
// and every failure is noted with its text.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/description/description.h"
#include "client/error.h"
#include "client/port.h"
#include "voq/client.h"

struct voq_project {
    std::shared_ptr<const voq::Description> description;  // ports that were opened by it keep it
    // Of each port: its place but for the user data directory, that place's name, and the names of its registers.
    std::vector<voq::PortDir> ports;
    std::vector<std::string> portNames;
    std::vector<std::vector<const std::string*>> names;
};

struct voq_range : voq::Range {
    voq_port* port = nullptr;
    std::string name;
    voq::Register reg;
    voq::Meaning meaning;
    std::uint64_t changes = 0;
    void* user = nullptr;
};

struct voq_request : voq::Asked {
    voq_range* range = nullptr;
    bool isRead = false;
    void* user = nullptr;
};

struct voq_port {
    explicit voq_port(const voq::PortDir& directory);

    pid_t process;  // that opened it
    std::string directory;
    std::optional<std::uint16_t> byteOrder;
    std::shared_ptr<const voq::Description> description;  // null: none
    mutable char error[512] = "";
    std::unordered_map<voq_range*, std::unique_ptr<voq_range>> ranges;
    std::unordered_map<voq_request*, std::unique_ptr<voq_request>> requests;
    voq::Port core;  // the last: it ends before what it follows
};

namespace voq
{

// A failure with the code that the caller is to get.
class Failure : public Error
{
public:
    Failure(int failed, const std::string& text) : Error(text), code(failed) {}
    int code;
};

// The code of the exception that is being handled; its text goes to `text`, which is cut when it does not fit.
int CodeOfCaught(std::span<char> text) noexcept;

// The border for calls on a port, its ranges and requests.
template <typename Call>
int OnPort(const voq_port* port, Call call) noexcept
{
    try {
        if (port->process != getpid()) throw Failure(VOQ_FORKED, "the port was opened by the parent process");
        return call();
    } catch (...) {
        return CodeOfCaught(port->error);
    }
}

// The border for calls that have no handle yet.
template <typename Call>
int WithoutPort(voq_error* error, Call call) noexcept
{
    char text[sizeof error->text] = "";
    int code = VOQ_OK;
    try {
        call();
    } catch (...) {
        code = CodeOfCaught(text);
    }
    if (error != nullptr) {
        error->code = code;
        __builtin_memcpy(error->text, text, sizeof text);
    }
    return code;
}

inline void Require(bool condition, const char* text)
{
    if (!condition) throw Failure(VOQ_INVALID, text);
}

// How the elements of a range lie; throws when nothing says it.
ValueCoding CodingOf(const voq_range& range);
// The byte-order word for a request that computes with elements; throws when nothing says it.
std::uint16_t ByteOrderOf(const voq_range& range);

inline std::span<const std::uint8_t> Span(const void* image, std::size_t length)
{
    return {static_cast<const std::uint8_t*>(image), length};
}

// Stores an image in the caller's room; returns its bytes.
int StoreImage(std::span<const std::uint8_t> image, void* room, std::size_t size);

// Copies as much of a record as the caller knows of it: of a later library, or of an earlier one, whose fields beyond
// stay as they are.
template <typename Record>
void StoreRecord(const Record& record, Record* room, std::size_t size)
{
    Require(room != nullptr && size != 0, "no room for the result");
    __builtin_memcpy(static_cast<void*>(room), &record, size < sizeof record ? size : sizeof record);
}

}  // namespace voq
