// Threads of the process: default attributes, never joined.
#pragma once

// Starts `body`. Returns false when the system has no thread to give.
[[nodiscard]] bool StartThread(void (*body)());
