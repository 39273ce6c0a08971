// Samples by their places: the first one ever added has place 1, the next 2. Done, taken and the end are places; rows
// lie in the file up to `fileEnd_`, in memory from there on.
#include "upstream/mqtt/spool.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <unordered_map>

#include "upstream/mqtt/encoding.h"
#include "upstream/mqtt/spool_file.h"

namespace voq::mqtt
{

namespace
{

constexpr std::uint64_t MostMemory = 1u << 20;
constexpr std::uint64_t Gone = ~std::uint64_t{0};  // of a sample that was taken and then dropped
constexpr std::uint64_t NoName = ~std::uint64_t{0};

std::uint64_t MemoryBytes(std::uint64_t bytes)
{
    return std::min(MostMemory, bytes / 16);
}

// How many bytes it adds to a row, at most.
std::size_t EncodedBytes(const Sample& sample)
{
    constexpr std::size_t times = 10;  // a distance may need more than the first one does
    RowWriter alone;
    alone.Add(sample, NoName);
    return alone.Bytes().size() + times;
}

}  // namespace

struct Spool::Inner {
    Inner(const SpoolSettings& settings, const std::vector<std::string>& names);

    void Add(const Sample& sample);
    void Tick(Clock::time_point now);
    std::optional<Clock::time_point> Due() const;
    void Write();
    std::vector<Sample> Take(std::size_t most);
    void Done(std::size_t count);
    void Rewind();

    struct MemoryRow {
        std::uint64_t first = 0;
        RowWriter writer;
        std::uint64_t End() const { return first + writer.Count(); }
    };

    void Open();
    void Renew(const std::string& why);
    void Failed(const DatabaseError& error);
    void Say(const std::string& text);
    std::uint64_t NameOf(std::uint32_t metric);
    bool Pending() const { return !memory_.empty() || doneWritten_ < std::min(done_, rowsEnd_); }
    bool Pressing() const { return memoryBytes_ >= memoryMost_ / 2 && !failed_; }
    MemoryRow& Tail();
    void DropOldestInMemory();
    void LeaveMemory();
    void GoneBefore(std::uint64_t begin);
    bool Load();
    bool LoadFromFile();
    void Read(std::vector<Sample>& taken);

    const SpoolSettings settings_;
    const std::uint64_t memoryMost_;
    const std::size_t rowMost_;
    const Clock::duration interval_;
    std::unique_ptr<SpoolFile> file_;  // none while it cannot be had

    std::uint64_t done_ = 1, taken_ = 1, fileEnd_ = 1, end_ = 1;  // places: of the next of each
    std::uint64_t rowsEnd_ = 1;                                   // of those in the file
    std::uint64_t doneWritten_ = 1;                               // as the file has it
    std::uint64_t nameless_ = 1;                                  // before it, those without a name are counted
    std::deque<MemoryRow> memory_;
    std::uint64_t memoryBytes_ = 0;
    bool sealed_ = false;             // the last row in memory takes no more: it is being read
    std::deque<std::uint64_t> open_;  // places that were taken and are not done

    std::vector<std::string> names_;  // of the metrics
    std::vector<std::string> used_;   // by number, from 1
    std::size_t written_ = 0;         // of `used_`, in the file
    std::vector<std::uint64_t> numberOf_;
    std::unordered_map<std::string, std::uint32_t> metricOf_;

    RowReader reader_;
    std::uint64_t readerAt_ = 0, readerEnd_ = 0;  // the place it reads next

    std::optional<Clock::time_point> due_;
    bool failed_ = false;
    std::uint64_t dropped_ = 0, writes_ = 0, bytes_ = 0;
    std::string remark_, said_;
};

Spool::Inner::Inner(const SpoolSettings& settings, const std::vector<std::string>& names)
    : settings_(settings),
      memoryMost_(MemoryBytes(settings.bytes)),
      rowMost_(SpoolFile::RowBytes(settings.bytes)),
      interval_(std::chrono::duration_cast<Clock::duration>(std::chrono::minutes(1)) / settings.writesPerMinute),
      names_(names),
      numberOf_(names.size(), NoName)
{
    for (std::uint32_t i = 0; i < names.size(); ++i) metricOf_[names[i]] = i;
    try {
        Open();
    } catch (const DatabaseError& error) {
        if (!error.Damaged()) throw;
        Renew(error.what());
    } catch (const SystemFailure&) {
        throw;
    } catch (const Error& error) {
        Renew(error.what());
    }
}

// What the file holds goes before all that is in memory.
void Spool::Inner::Open()
{
    file_.reset();
    auto file = std::make_unique<SpoolFile>(settings_.file, settings_.bytes);
    used_ = file->Names();
    written_ = used_.size();
    done_ = taken_ = doneWritten_ = std::max({file->Begin(), file->Done(), std::uint64_t{1}});
    rowsEnd_ = file->End();
    fileEnd_ = end_ = std::max(rowsEnd_, done_);
    bytes_ = file->Bytes();
    for (std::size_t i = 0; i < used_.size(); ++i) {
        const auto found = metricOf_.find(used_[i]);
        if (found != metricOf_.end()) numberOf_[found->second] = i + 1;
    }
    file_ = std::move(file);
}

// A new file in the place of one that is of no use; what waits in memory stays. The names that it uses keep their
// numbers.
void Spool::Inner::Renew(const std::string& why)
{
    file_.reset();
    SetAside(settings_.file);
    Say(why + ": moved aside as " + settings_.file + ".bad");
    if (taken_ < fileEnd_) dropped_ += fileEnd_ - std::max(taken_, done_);
    GoneBefore(fileEnd_);
    written_ = 0;
    auto file = std::make_unique<SpoolFile>(settings_.file, settings_.bytes);
    doneWritten_ = rowsEnd_ = done_;
    bytes_ = file->Bytes();
    file_ = std::move(file);
}

void Spool::Inner::Failed(const DatabaseError& error)
{
    failed_ = true;
    if (!error.Damaged()) return Say(std::string(error.what()) + ": values wait in memory");
    try {
        Renew(error.what());
    } catch (const Error& again) {
        Say(std::string(again.what()) + ": values wait in memory");
    }
}

void Spool::Inner::Say(const std::string& text)
{
    if (text == said_) return;
    remark_ = said_ = text;
}

std::uint64_t Spool::Inner::NameOf(std::uint32_t metric)
{
    std::uint64_t& number = numberOf_[metric];
    if (number == NoName) {
        used_.push_back(names_[metric]);
        number = used_.size();
    }
    return number;
}

Spool::Inner::MemoryRow& Spool::Inner::Tail()
{
    if (memory_.empty() || sealed_) {
        memory_.push_back({end_, {}});
        sealed_ = false;
    }
    return memory_.back();
}

void Spool::Inner::Add(const Sample& sample)
{
    const std::size_t most = EncodedBytes(sample);
    if (most > memoryMost_ / 4 || sample.metric >= names_.size()) return ++dropped_, void();
    const std::uint64_t name = NameOf(sample.metric);
    // A row does not grow beyond its bounds for a long text.
    if (!memory_.empty() && memory_.back().writer.Bytes().size() + most > rowMost_) sealed_ = true;
    while (memoryBytes_ + most > memoryMost_ && !memory_.empty()) DropOldestInMemory();
    RowWriter& row = Tail().writer;
    const std::size_t before = row.Bytes().size();
    row.Add(sample, name);
    memoryBytes_ += row.Bytes().size() - before;
    ++end_;
}

// Those behind it take its places, so that there are none without a sample.
void Spool::Inner::DropOldestInMemory()
{
    const std::uint64_t begin = memory_.front().first, end = memory_.front().End(), count = end - begin;
    const std::uint64_t kept = std::clamp(std::max(taken_, done_), begin, end);
    dropped_ += end - kept;
    memoryBytes_ -= memory_.front().writer.Bytes().size();
    memory_.pop_front();
    for (MemoryRow& row : memory_) row.first -= count;
    const auto moved = [&](std::uint64_t place) {
        return place <= begin ? place : place < end ? begin : place - count;
    };
    for (std::uint64_t& place : open_) {
        if (place != Gone) place = place >= begin && place < end ? Gone : moved(place);
    }
    for (std::uint64_t* place : {&done_, &taken_, &end_, &nameless_}) *place = moved(*place);
    readerAt_ = readerEnd_ = 0;
}

void Spool::Inner::Tick(Clock::time_point now)
{
    if (!Pending()) return due_.reset();
    if (!due_) due_ = now + interval_;
    if (now < *due_ && !Pressing()) return;
    Write();
    due_.reset();
    if (Pending()) due_ = now + interval_;
}

std::optional<Spool::Clock::time_point> Spool::Inner::Due() const
{
    if (!Pending()) return std::nullopt;
    return due_ && !Pressing() ? *due_ : Clock::time_point::min();
}

void Spool::Inner::Write()
{
    if (!Pending()) return;
    std::vector<RowView> rows;
    for (const MemoryRow& each : memory_) rows.push_back({each.first, each.writer.Count(), each.writer.Bytes()});
    try {
        if (!file_) file_ = std::make_unique<SpoolFile>(settings_.file, settings_.bytes);
        const std::uint64_t begin = file_->Write(std::span(used_).subspan(written_), rows, done_);
        ++writes_;
        written_ = used_.size();
        doneWritten_ = done_;
        fileEnd_ = end_;
        if (!rows.empty()) rowsEnd_ = end_;
        memory_.clear();
        memoryBytes_ = 0;
        if (begin > done_) {
            dropped_ += begin - std::max(std::min(taken_, begin), done_);
            GoneBefore(begin);
        }
        bytes_ = file_->Bytes();
        failed_ = false;
        said_.clear();
    } catch (const DatabaseError& error) {
        Failed(error);
    } catch (const Error& error) {
        failed_ = true;
        Say(std::string(error.what()) + ": values wait in memory");
    }
}

// No sample before it is kept any longer, whatever became of it.
void Spool::Inner::GoneBefore(std::uint64_t begin)
{
    for (std::uint64_t& place : open_) {
        if (place < begin) place = Gone;
    }
    done_ = std::max(done_, begin);
    taken_ = std::max(taken_, begin);
}

std::vector<Sample> Spool::Inner::Take(std::size_t most)
{
    std::vector<Sample> taken;
    while (taken.size() < most && taken_ < end_ && Load()) Read(taken);
    return taken;
}

// The reader stands at the next sample. False when the file does not give it.
bool Spool::Inner::Load()
{
    if (readerAt_ == taken_ && readerAt_ < readerEnd_) return true;
    std::uint64_t first = 0;
    if (taken_ < fileEnd_) {
        if (!LoadFromFile()) return false;
        if (taken_ < fileEnd_) return true;
    }
    const auto next = std::upper_bound(memory_.begin(), memory_.end(), taken_,
                                       [](std::uint64_t place, const MemoryRow& row) { return place < row.first; });
    if (next == memory_.begin()) return false;
    const MemoryRow& row = *std::prev(next);
    if (next == memory_.end()) sealed_ = true;
    reader_ = RowReader(row.writer.Bytes());
    readerEnd_ = row.End();
    for (first = row.first; first < taken_; ++first) reader_.Next();
    readerAt_ = taken_;
    return taken_ < readerEnd_;
}

bool Spool::Inner::LoadFromFile()
{
    try {
        if (!file_) return false;
        auto row = file_->Find(taken_);
        const std::uint64_t next = row ? std::max(row->first, taken_) : fileEnd_;
        dropped_ += next - taken_;  // places without a row: of a damaged file
        taken_ = next;
        if (!row) return true;
        reader_ = RowReader(std::move(row->bytes));
        readerEnd_ = row->End();
        for (std::uint64_t place = row->first; place < taken_; ++place) reader_.Next();
        readerAt_ = taken_;
        return true;
    } catch (const DatabaseError& error) {
        Failed(error);
        return false;
    }
}

// The next sample, if it is one of a name that is told.
void Spool::Inner::Read(std::vector<Sample>& taken)
{
    auto read = reader_.Next();
    if (!read) {
        if (readerEnd_ > nameless_) dropped_ += readerEnd_ - std::max(taken_, nameless_);
        nameless_ = std::max(nameless_, readerEnd_);
        taken_ = readerAt_ = readerEnd_;
        return;
    }
    const std::uint64_t place = taken_;
    taken_ = ++readerAt_;
    const bool known = read->name >= 1 && read->name <= used_.size();
    const auto found = known ? metricOf_.find(used_[read->name - 1]) : metricOf_.end();
    if (found == metricOf_.end()) {
        if (place >= nameless_) ++dropped_;
        nameless_ = std::max(nameless_, taken_);
        return;
    }
    read->sample.metric = found->second;
    open_.push_back(place);
    taken.push_back(std::move(read->sample));
}

void Spool::Inner::Done(std::size_t count)
{
    for (; count > 0 && !open_.empty(); --count) {
        if (open_.front() != Gone) done_ = std::max(done_, open_.front() + 1);
        open_.pop_front();
    }
    if (open_.empty()) done_ = std::max(done_, taken_);
    LeaveMemory();
}

// Rows in memory that are done need never be written.
void Spool::Inner::LeaveMemory()
{
    while (!memory_.empty() && memory_.front().End() <= done_) {
        fileEnd_ = memory_.front().End();
        memoryBytes_ -= memory_.front().writer.Bytes().size();
        memory_.pop_front();
        if (memory_.empty()) sealed_ = false;
    }
}

void Spool::Inner::Rewind()
{
    dropped_ += static_cast<std::uint64_t>(std::count(open_.begin(), open_.end(), Gone));
    open_.clear();
    taken_ = done_;
}

Spool::Spool(const SpoolSettings& settings, const std::vector<std::string>& names)
try : inner_(std::make_unique<Inner>(settings, names)) {
} catch (const Error& error) {
    throw Error("[spool] file: " + std::string(error.what()));
}
Spool::~Spool()
{
    inner_->Write();
}
void Spool::Add(const Sample& sample)
{
    inner_->Add(sample);
}
void Spool::Tick(Clock::time_point now)
{
    inner_->Tick(now);
}
std::optional<Spool::Clock::time_point> Spool::Due() const
{
    return inner_->Due();
}
void Spool::Flush()
{
    inner_->Write();
}
std::vector<Sample> Spool::Take(std::size_t most)
{
    return inner_->Take(most);
}
void Spool::Done(std::size_t count)
{
    inner_->Done(count);
}
void Spool::Rewind()
{
    inner_->Rewind();
}
bool Spool::Empty() const
{
    return inner_->taken_ >= inner_->end_;
}

Spool::Figures Spool::Counted() const
{
    return {inner_->end_ - inner_->done_, inner_->end_ - std::max(inner_->fileEnd_, inner_->done_), inner_->bytes_,
            inner_->dropped_, inner_->writes_};
}

std::string Spool::Remark()
{
    std::string text;
    text.swap(inner_->remark_);
    return text;
}

}  // namespace voq::mqtt
