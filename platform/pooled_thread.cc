#include "platform/pooled_thread.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace orv {

namespace {

size_t GuardSize() {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return page;
}

void* Base(void* stack) {
    return static_cast<char*>(stack) - GuardSize();
}

void* StartWork(void* arg) {
    std::unique_ptr<std::function<void()>> work(static_cast<std::function<void()>*>(arg));
    (*work)();
    return nullptr;
}

}  // namespace

StackPool& StackPool::Instance() {
    // Never destroyed: threads may still be joined while the process exits.
    static StackPool* pool = new StackPool();
    return *pool;
}

void* StackPool::Take() {
    {
        MutexLock lock(&mutex_);
        if (!kept_.empty()) {
            void* stack = kept_.back();
            kept_.pop_back();
            return stack;
        }
    }
    void* base = mmap(nullptr, GuardSize() + kStackSize, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    // An overflow faults rather than writing over whatever lies below.
    if (mprotect(base, GuardSize(), PROT_NONE) != 0) {
        munmap(base, GuardSize() + kStackSize);
        return nullptr;
    }
    return static_cast<char*>(base) + GuardSize();
}

void StackPool::Give(void* stack) {
    if (stack == nullptr) {
        return;
    }
    {
        MutexLock lock(&mutex_);
        if (kept_.size() < kKeptStacks) {
            kept_.push_back(stack);
            return;
        }
    }
    munmap(Base(stack), GuardSize() + kStackSize);
}

size_t StackPool::Kept() {
    MutexLock lock(&mutex_);
    return kept_.size();
}

PooledThread::~PooledThread() {
    if (joinable_) {
        Join();
    }
}

PooledThread::PooledThread(PooledThread&& other) noexcept
    : thread_(other.thread_), stack_(other.stack_), joinable_(other.joinable_) {
    other.stack_ = nullptr;
    other.joinable_ = false;
}

bool PooledThread::Start(std::function<void()> work, std::string* why) {
    stack_ = StackPool::Instance().Take();
    if (stack_ == nullptr) {
        *why = std::string("no stack: ") + std::strerror(errno);
        return false;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, stack_, StackPool::kStackSize);
    auto* arg = new std::function<void()>(std::move(work));
    int rc = pthread_create(&thread_, &attr, &StartWork, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete arg;
        StackPool::Instance().Give(stack_);
        stack_ = nullptr;
        *why = std::string("no thread: ") + std::strerror(rc);
        return false;
    }
    joinable_ = true;
    return true;
}

void PooledThread::Join() {
    if (!joinable_) {
        return;
    }
    joinable_ = false;
    if (pthread_equal(thread_, pthread_self()) != 0) {
        // A thread cannot wait for its own end; it still runs on its stack,
        // which is therefore never reused.
        pthread_detach(thread_);
        stack_ = nullptr;
        return;
    }
    pthread_join(thread_, nullptr);
    // The kernel has let go of the stack too: the join waits for the
    // thread's id to be cleared, the last thing its exit does.
    StackPool::Instance().Give(stack_);
    stack_ = nullptr;
}

std::string PooledThread::IdText() const {
    return std::to_string(static_cast<unsigned long>(thread_));
}

}  // namespace orv
