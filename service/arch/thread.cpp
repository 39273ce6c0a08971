// Thread creation. Called on the main thread during start-up.
#include "arch/thread.h"

#include <pthread.h>

namespace
{
using Body = void (*)();

void* RunBody(void* body)
{
    reinterpret_cast<Body>(body)();
    return nullptr;
}
}  // namespace

bool StartThread(Body body)
{
    pthread_t thread;
    return pthread_create(&thread, nullptr, RunBody, reinterpret_cast<void*>(body)) == 0;
}
