// One-shot requests: a frame, and the answer that follows it. The answer's file never stays: it is removed when it is
// read, and otherwise when it comes.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "client/bytes.h"
#include "client/fifo.h"
#include "client/file_number.h"
#include "client/port_dir.h"
#include "client/result_file.h"

namespace voq
{

struct OneShot {
    std::string fifo;
    FileNumbers* numbers = nullptr;
    std::uint16_t fileno = 0;  // the frame's own, held by `numbers`
    Bytes frame = {};
    Writers writers = Writers::Several;
    std::chrono::milliseconds timeout{10000};
    std::function<bool()> stopped = {};  // ends the waiting when it turns true
};

// What is noted of a one-shot's number: its request, with the time.
RegRequest OneShotNote(std::span<const std::uint8_t> frame);

// Sends the request and takes its answer, and gives its number back; nothing when there is none in time. The request is
// then still with the service, which may carry it out: RemoveLater sees to its answer. Throws ServiceNotRunning or
// Error; nothing is sent when the caller may not remove files from the port's directory.
std::optional<ResultFile> Ask(const PortDir& port, const OneShot& request);

// The two halves of it, for several requests at once. SendRequest throws as Ask does; the request is then not sent and
// its number given back.
void SendRequest(const PortDir& port, const OneShot& request);
// The answer, when it is there: its file is removed and its number given back. Throws Error when it cannot be read or
// belongs to another request; then too.
std::optional<ResultFile> TakeAnswer(const PortDir& port, const OneShot& request);

// Leaves a process behind that removes the answers when they come. It ends when the last one has, when the service
// does, or when the time is over, and keeps the numbers meanwhile, which are those of one FileNumbers. It keeps none of
// the caller's other files open and no terminal. Returns its id; throws Error when there is none.
int RemoveLater(const PortDir& port, std::span<const OneShot> requests, std::chrono::milliseconds atMost);

}  // namespace voq
