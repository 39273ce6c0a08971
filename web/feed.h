// The messages for browsers that listen: built once, kept for a moment, handed to each at its own speed. Publish is the
// sampling thread's, the rest is the server's; one mutex, held for copying only.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace voq::web
{

class Feed
{
public:
    // A reader is woken by the call that it is made with, from the thread that publishes.
    using Wake = std::function<void()>;

    class Reader
    {
    public:
        // Copies what there is, at most `length` bytes. 0: nothing yet; it is then woken once. Nothing: the stream has
        // ended, since the reader was too slow or the server ends.
        struct Copied {
            std::size_t bytes = 0;
            bool ended = false;
        };
        Copied Copy(char* into, std::size_t length, const std::function<void()>& beforeSleep);
        ~Reader();

    private:
        friend class Feed;
        Reader(Feed& feed, std::string first, Wake wake);
        Feed& feed_;
        std::shared_ptr<const std::string> current_;
        std::size_t sent_ = 0;
        std::uint64_t next_;
        Wake wake_;
        bool asleep_ = false;
    };

    // Messages are kept so long; a reader that needs an older one has been too slow.
    static constexpr std::size_t KeptMessages = 64, KeptBytes = 256 * 1024;
    // Beyond it the server has no connections left for pages and figures.
    static constexpr std::size_t MaxReaders = 40;

    // `first` is what it gets before all messages. Null when there are too many.
    std::unique_ptr<Reader> Join(std::string first, Wake wake);
    std::size_t Readers() const;

    // One message: an event with one line of data. Returns its number.
    void Publish(std::string_view event, std::uint64_t sequence, std::string_view data);
    // A line that means nothing: a connection whose other end is gone is found by it.
    void Ping();
    // Ends all streams.
    void End();

private:
    void Add(std::string message);

    mutable std::mutex mutex_;
    std::deque<std::shared_ptr<const std::string>> kept_;
    std::size_t bytes_ = 0;
    std::uint64_t firstKept_ = 0;  // number of kept_[0]
    std::vector<Reader*> readers_;
    bool ended_ = false;
};

std::string EventText(std::string_view event, std::uint64_t sequence, std::string_view data);

}  // namespace voq::web
