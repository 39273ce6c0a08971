// Keeps and hands out messages.
#include "web/feed.h"

#include <algorithm>
#include <cstring>

namespace voq::web
{

std::string EventText(std::string_view event, std::uint64_t sequence, std::string_view data)
{
    std::string text = "id: " + std::to_string(sequence) + "\nevent: ";
    text.append(event).append("\ndata: ").append(data).append("\n\n");
    return text;
}

Feed::Reader::Reader(Feed& feed, std::string first, Wake wake)
    : feed_(feed),
      current_(std::make_shared<const std::string>(std::move(first))),
      next_(feed.firstKept_ + feed.kept_.size()),
      wake_(std::move(wake))
{
}

Feed::Reader::~Reader()
{
    const std::lock_guard lock(feed_.mutex_);
    std::erase(feed_.readers_, this);
}

Feed::Reader::Copied Feed::Reader::Copy(char* into, std::size_t length, const std::function<void()>& beforeSleep)
{
    const std::lock_guard lock(feed_.mutex_);
    if (feed_.ended_) return {0, true};
    if (sent_ == current_->size()) {
        if (next_ < feed_.firstKept_) return {0, true};
        if (next_ == feed_.firstKept_ + feed_.kept_.size()) {
            asleep_ = true;
            beforeSleep();
            return {0, false};
        }
        current_ = feed_.kept_[static_cast<std::size_t>(next_++ - feed_.firstKept_)];
        sent_ = 0;
    }
    const std::size_t bytes = std::min(length, current_->size() - sent_);
    std::memcpy(into, current_->data() + sent_, bytes);
    sent_ += bytes;
    return {bytes, false};
}

std::unique_ptr<Feed::Reader> Feed::Join(std::string first, Wake wake)
{
    const std::lock_guard lock(mutex_);
    if (ended_ || readers_.size() >= MaxReaders) return nullptr;
    std::unique_ptr<Reader> reader(new Reader(*this, std::move(first), std::move(wake)));
    readers_.push_back(reader.get());
    return reader;
}

std::size_t Feed::Readers() const
{
    const std::lock_guard lock(mutex_);
    return readers_.size();
}

void Feed::Publish(std::string_view event, std::uint64_t sequence, std::string_view data)
{
    Add(EventText(event, sequence, data));
}

void Feed::Ping()
{
    Add(":\n\n");
}

void Feed::End()
{
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    Add({});
}

void Feed::Add(std::string message)
{
    std::vector<Wake> asleep;
    {
        const std::lock_guard lock(mutex_);
        bytes_ += message.size();
        kept_.push_back(std::make_shared<const std::string>(std::move(message)));
        while (kept_.size() > 1 && (kept_.size() > KeptMessages || bytes_ > KeptBytes)) {
            bytes_ -= kept_.front()->size();
            kept_.pop_front();
            ++firstKept_;
        }
        for (Reader* reader : readers_) {
            if (!reader->asleep_) continue;
            reader->asleep_ = false;
            asleep.push_back(reader->wake_);
        }
    }
    // A sleeping reader stays until it is woken, and only this thread wakes.
    for (const Wake& wake : asleep) wake();
}

}  // namespace voq::web
