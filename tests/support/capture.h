// What an operation prints.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

inline std::string Output(const auto& operation)
{
    testing::internal::CaptureStdout();
    operation();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}
