// What a benchmark measured: one line of JSON for each figure on the program's standard output. The service's own
// messages go there as well; they are written as the service writes them, line by line, but to nowhere.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

[[noreturn]] inline void Fail(const char* what)
{
    std::perror(what);
    std::exit(2);
}

inline double NowUs()
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Report
{
public:
    Report() : out_(fdopen(dup(STDOUT_FILENO), "w"))
    {
        if (out_ == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) Fail("standard output");
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    }

    // Samples of the service and of its floor, taken in turns; without a floor the second is empty.
    void Figure(const char* name, long size, const char* unit, const std::vector<double>& service,
                const std::vector<double>& floor = {}) const
    {
        std::fprintf(out_, R"({"figure": "%s", "size": %ld, "unit": "%s", "service": )", name, size, unit);
        List(service);
        std::fprintf(out_, R"(, "floor": )");
        List(floor);
        std::fprintf(out_, "}\n");
        std::fflush(out_);
    }

private:
    void List(const std::vector<double>& samples) const
    {
        for (std::size_t i = 0; i < samples.size(); ++i) std::fprintf(out_, "%s%.9g", i == 0 ? "[" : ", ", samples[i]);
        std::fputs(samples.empty() ? "[]" : "]", out_);
    }

    std::FILE* out_;
};
