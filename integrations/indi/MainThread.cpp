#include "MainThread.h"

#include <eventloop.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <deque>
#include <mutex>

namespace kovindi {

namespace {

struct Queue {
    std::mutex mutex;
    std::deque<std::function<void()>> work;
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

Queue& TheQueue()
{
    static auto* queue = new Queue;  // threads may come with work while the process ends
    return *queue;
}

void Drain(int fd, void*)
{
    uint64_t ignored;
    [[maybe_unused]] const auto read8 = read(fd, &ignored, sizeof ignored);
    std::deque<std::function<void()>> work;
    {
        const std::lock_guard lock(TheQueue().mutex);
        work.swap(TheQueue().work);
    }
    for (const auto& w : work)
        w();
}

}  // namespace

void StartMainThreadQueue() { addCallback(TheQueue().fd, Drain, nullptr); }

void OnMainThread(std::function<void()> work)
{
    Queue& queue = TheQueue();
    const std::lock_guard lock(queue.mutex);
    queue.work.push_back(std::move(work));
    constexpr uint64_t ONE = 1;
    [[maybe_unused]] const auto written = write(queue.fd, &ONE, sizeof ONE);
}

}  // namespace kovindi
