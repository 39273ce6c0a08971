// A flag that stands for as long as a scope does. Main thread.
#pragma once

template <bool& Flag>
class ScopedFlag
{
public:
    ScopedFlag() { Flag = true; }
    ~ScopedFlag() { Flag = false; }
    ScopedFlag(const ScopedFlag&) = delete;
    ScopedFlag& operator=(const ScopedFlag&) = delete;
};
