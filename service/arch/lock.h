// Mutex and reader-writer lock of the process, with the annotations that clang's thread-safety analysis checks.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define VOQ_TSA(x) __attribute__((x))
#else
#define VOQ_TSA(x)
#endif
#define VOQ_CAPABILITY(name) VOQ_TSA(capability(name))
#define VOQ_SCOPED_CAPABILITY VOQ_TSA(scoped_lockable)
#define VOQ_GUARDED_BY(lock) VOQ_TSA(guarded_by(lock))
#define VOQ_REQUIRES(...) VOQ_TSA(requires_capability(__VA_ARGS__))
#define VOQ_REQUIRES_SHARED(...) VOQ_TSA(requires_shared_capability(__VA_ARGS__))
#define VOQ_EXCLUDES(...) VOQ_TSA(locks_excluded(__VA_ARGS__))
#define VOQ_ACQUIRE(...) VOQ_TSA(acquire_capability(__VA_ARGS__))
#define VOQ_ACQUIRE_SHARED(...) VOQ_TSA(acquire_shared_capability(__VA_ARGS__))
#define VOQ_RELEASE(...) VOQ_TSA(release_capability(__VA_ARGS__))
#define VOQ_RELEASE_SHARED(...) VOQ_TSA(release_shared_capability(__VA_ARGS__))
#define VOQ_RELEASE_GENERIC(...) VOQ_TSA(release_generic_capability(__VA_ARGS__))

class VOQ_CAPABILITY("mutex") Mutex
{
public:
    constexpr Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    void Lock() VOQ_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void Unlock() VOQ_RELEASE() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class VOQ_CAPABILITY("rwlock") RwLock
{
public:
    constexpr RwLock() = default;
    RwLock(const RwLock&) = delete;
    RwLock& operator=(const RwLock&) = delete;
    void LockWrite() VOQ_ACQUIRE() { pthread_rwlock_wrlock(&lock_); }
    void LockRead() VOQ_ACQUIRE_SHARED() { pthread_rwlock_rdlock(&lock_); }
    void UnlockWrite() VOQ_RELEASE() { pthread_rwlock_unlock(&lock_); }
    void UnlockRead() VOQ_RELEASE_SHARED() { pthread_rwlock_unlock(&lock_); }

private:
    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
};

class VOQ_SCOPED_CAPABILITY MutexLock
{
public:
    explicit MutexLock(Mutex& mutex) VOQ_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() VOQ_RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

class VOQ_SCOPED_CAPABILITY WriteLock
{
public:
    explicit WriteLock(RwLock& lock) VOQ_ACQUIRE(lock) : lock_(lock) { lock_.LockWrite(); }
    ~WriteLock() VOQ_RELEASE() { lock_.UnlockWrite(); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

private:
    RwLock& lock_;
};

class VOQ_SCOPED_CAPABILITY ReadLock
{
public:
    explicit ReadLock(RwLock& lock) VOQ_ACQUIRE_SHARED(lock) : lock_(lock) { lock_.LockRead(); }
    ~ReadLock() VOQ_RELEASE_GENERIC() { lock_.UnlockRead(); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

private:
    RwLock& lock_;
};
