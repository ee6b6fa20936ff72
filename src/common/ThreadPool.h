// A small fixed pool of workers with one queue. Tasks run strictly in commit order; the destructor
// stops the workers, waits for a running task and joins them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace SurfaceReconstruction {

class ThreadPoolStopped : public std::runtime_error {
public:
    ThreadPoolStopped() : std::runtime_error("commit on ThreadPool is stopped.") {}
};

class ThreadPool {
public:
    static constexpr unsigned short MAX_THREADS = 20;

    explicit ThreadPool(unsigned short threads) {
        m_run = true;
        const unsigned short count = threads < MAX_THREADS ? threads : MAX_THREADS;
        m_threads.reserve(count);
        for (unsigned short i = 0; i < count; ++i) m_threads.emplace_back([this] { workerLoop(); });
    }

    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    ~ThreadPool() {
        {
            // Stopped under the queue's lock: a worker tests m_run under it before it waits, so it either
            // sees the stop or is already waiting when the notification comes.
            std::lock_guard<std::mutex> guard(m_lock);
            m_run = false;
        }
        m_task_cv.notify_all();
        for (std::thread& thread : m_threads) {
            if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) thread.join();
        }
        for (std::thread& thread : m_threads) {
            if (thread.joinable()) thread.detach();  // only our own thread can be left
        }
    }

    // Queues `task` (a callable without arguments returning int); its exception comes out of get().
    template <class F>
    std::future<int> commit(F task) {
        if (!m_run) throw ThreadPoolStopped();
        auto packaged = std::make_shared<std::packaged_task<int()>>(std::move(task));
        std::future<int> result = packaged->get_future();
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_tasks.emplace_back([packaged] { (*packaged)(); });
        }
        m_task_cv.notify_one();
        return result;
    }

    std::size_t threadCount() const { return m_threads.size(); }
    int aliveCount() const { return m_alive; }

private:
    void workerLoop() {
        ++m_alive;
        while (m_run) {
            std::function<void()> task;
            {
                std::unique_lock<std::mutex> lock(m_lock);
                m_task_cv.wait(lock, [this] { return !m_run || !m_tasks.empty(); });
                if (!m_run && m_tasks.empty()) break;
                task = std::move(m_tasks.front());
                m_tasks.pop_front();
            }
            task();
        }
        --m_alive;
    }

    std::vector<std::thread> m_threads;
    std::deque<std::function<void()>> m_tasks;
    std::mutex m_lock;
    std::condition_variable m_task_cv;
    std::atomic<bool> m_run{false};
    std::atomic<int> m_alive{0};
};

}  // namespace SurfaceReconstruction
