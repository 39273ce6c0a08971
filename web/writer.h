// Writes of browsers: one at a time, on a thread of its own, since the service may take its time to answer.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "web/model.h"

namespace voq::web
{

class Writer
{
public:
    using Done = std::function<void(unsigned status, std::string text)>;

    Writer();
    ~Writer() { End(); }
    // What is under way is waited for, at most as long as the service has to answer; nothing is begun any more.
    void End();

    // Begins a write; `done` is called once from the writer's thread. False when another one is under way.
    bool Begin(Model::Writing what, std::vector<std::string> values, Done done);

private:
    struct Job {
        Model::Writing what;
        std::vector<std::string> values;
        Done done;
    };
    void Run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Job> job_;  // until it is done
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace voq::web
