// Work that is done on threads of its own while others wait for it or do not.

#ifndef GATEWAY_ERRANDS_H
#define GATEWAY_ERRANDS_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "gateway/HttpClient.h"

namespace flickr_gateway {

/// A few threads, each with a client for requests, that do what they are given in its order.
class Errands {
public:
    Errands(unsigned threads, const HttpTrust& trust, RateLimit& rate) {
        for (unsigned i = 0; i < threads; ++i) {
            threads_.emplace_back([this, trust, &rate] { work(trust, rate); });
        }
    }
    ~Errands() { stop(); }
    Errands(const Errands&) = delete;
    Errands& operator=(const Errands&) = delete;

    /// The work is called with a client and a Cancelled that is true once they stop.
    template <typename Work>
    auto run(Work work) {
        using Result = decltype(work(std::declval<HttpClient&>(), std::declval<const Cancelled&>()));
        auto task =
            std::make_shared<std::packaged_task<Result(HttpClient&, const Cancelled&)>>(std::move(work));
        std::shared_future<Result> result = task->get_future().share();
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return result;  // never done: the task goes, and the future is broken
            waiting_.push_back(
                [task](HttpClient& http, const Cancelled& cancelled) { (*task)(http, cancelled); });
        }
        changed_.notify_one();
        return result;
    }

    /// Ends what is under way; what was not begun is dropped, and its future broken.
    void stop() {
        std::deque<std::function<void(HttpClient&, const Cancelled&)>> dropped;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            dropped.swap(waiting_);
        }
        changed_.notify_all();
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
    }

private:
    void work(const HttpTrust& trust, RateLimit& rate) {
        HttpClient http(trust, rate);
        const Cancelled cancelled = [this] { return stopping_.load(); };
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
            if (stopping_) return;
            const auto errand = std::move(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            errand(http, cancelled);
            lock.lock();
        }
    }

    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void(HttpClient&, const Cancelled&)>> waiting_;
    std::vector<std::thread> threads_;
};

}  // namespace flickr_gateway

#endif
