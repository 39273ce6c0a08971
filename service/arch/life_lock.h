// A lock that the process holds until it ends, however it ends. Main thread.
#pragma once

enum class LifeLock {
    Held,
    HeldElsewhere,  // by another process, still after a second: one that was just killed may take a moment to end
    None,           // the file cannot be made, opened or locked; the reason is in errno
};

// Makes the file if there is none. It must never be opened again: its lock would go when that descriptor is closed.
[[nodiscard]] LifeLock LockForLife(const char* path);
