#include "upstream/mqtt/spool.h"
#include <deque>
namespace voq::mqtt {
struct Spool::Inner { std::deque<Sample> q; std::size_t taken = 0; };
Spool::Spool(const SpoolSettings&, const std::vector<std::string>&) : inner_(new Inner) {}
Spool::~Spool() = default;
void Spool::Add(const Sample& s) { inner_->q.push_back(s); }
void Spool::Tick(Clock::time_point) {}
std::optional<Spool::Clock::time_point> Spool::Due() const { return {}; }
void Spool::Flush() {}
std::vector<Sample> Spool::Take(std::size_t most) { std::vector<Sample> v; while (v.size() < most && inner_->taken < inner_->q.size()) v.push_back(inner_->q[inner_->taken++]); return v; }
void Spool::Done(std::size_t n) { inner_->q.erase(inner_->q.begin(), inner_->q.begin() + n); inner_->taken -= n; }
void Spool::Rewind() { inner_->taken = 0; }
bool Spool::Empty() const { return inner_->taken == inner_->q.size(); }
Spool::Figures Spool::Counted() const { return {inner_->q.size(), 0, 0, 0}; }
std::string Spool::Remark() { return {}; }
}
