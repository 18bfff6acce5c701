#include "platform/DispatchQueue.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <thread>

namespace morvane::platform {

namespace {

thread_local const DispatchQueue* tlsCurrentQueue = nullptr;

/// The threads behind every queue. It grows while all its threads are busy, so that a block
/// waiting for another block cannot starve the pool, and a thread leaves after it has been
/// idle for a while. It is never destroyed: detached workers may outlive static destructors.
class WorkerPool {
public:
    static WorkerPool& instance() {
        static auto* pool = new WorkerPool();
        return *pool;
    }

    void submit(std::function<void()> job) {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        if (jobs_.size() > idle_ && threads_ < kMaxThreads) {
            ++threads_;
            std::thread([this] { work(); }).detach();
        } else {
            wake_.notify_one();
        }
    }

private:
    static constexpr std::size_t kMaxThreads = 64;
    static constexpr auto kIdleTimeout = std::chrono::seconds(15);

    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            while (jobs_.empty()) {
                ++idle_;
                const bool woken =
                    wake_.wait_for(lock, kIdleTimeout, [this] { return !jobs_.empty(); });
                --idle_;
                if (!woken) {
                    --threads_;
                    return;
                }
            }
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
};

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label, Kind kind) {
    return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), kind));
}

std::shared_ptr<DispatchQueue> DispatchQueue::global() {
    static const auto queue = create("global", Kind::concurrent);
    return queue;
}

std::string DispatchQueue::currentLabel() {
    return tlsCurrentQueue ? tlsCurrentQueue->label() : std::string();
}

DispatchQueue::DispatchQueue(std::string label, Kind kind)
    : label_(std::move(label)), kind_(kind) {}

DispatchQueue::~DispatchQueue() = default;

void DispatchQueue::async(Block block) {
    enqueue(std::move(block), false);
}

void DispatchQueue::asyncBarrier(Block block) {
    enqueue(std::move(block), true);
}

namespace {

// Runs the block and then releases the waiting caller, also when the block throws: the
// exception is the caller's to see, not a reason to keep it waiting for ever.
DispatchQueue::Block releasing(const DispatchQueue::Block& block, std::promise<void>& done) {
    return [&block, &done] {
        try {
            block();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    };
}

}  // namespace

void DispatchQueue::sync(Block block) {
    std::promise<void> done;
    auto finished = done.get_future();
    async(releasing(block, done));
    finished.get();
}

void DispatchQueue::barrierSync(Block block) {
    std::promise<void> done;
    auto finished = done.get_future();
    asyncBarrier(releasing(block, done));
    finished.get();
}

void DispatchQueue::waitUntilIdle() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return pending_.empty() && running_ == 0 && !barrierRunning_; });
}

void DispatchQueue::enqueue(Block block, bool barrier) {
    std::unique_lock lock(mutex_);
    // On a serial queue every block already runs alone, so a barrier is an ordinary block.
    pending_.push_back({std::move(block), barrier && kind_ == Kind::concurrent});
    pump(lock);
}

void DispatchQueue::pump(std::unique_lock<std::mutex>&) {
    while (!pending_.empty() && !barrierRunning_) {
        const bool barrier = pending_.front().barrier;
        if ((kind_ == Kind::serial || barrier) && running_ > 0) {
            return;
        }
        Block block = std::move(pending_.front().block);
        pending_.pop_front();
        if (barrier) {
            barrierRunning_ = true;
        } else {
            ++running_;
        }
        WorkerPool::instance().submit([self = shared_from_this(), block = std::move(block),
                                       barrier] {
            const DispatchQueue* outer = tlsCurrentQueue;
            tlsCurrentQueue = self.get();
            try {
                block();
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s: a block ended with an exception: %s\n",
                             self->label_.c_str(), error.what());
            } catch (...) {
                std::fprintf(stderr, "%s: a block ended with an exception\n", self->label_.c_str());
            }
            tlsCurrentQueue = outer;
            self->finished(barrier);
        });
        if (barrier || kind_ == Kind::serial) {
            return;
        }
    }
}

void DispatchQueue::finished(bool barrier) {
    std::unique_lock lock(mutex_);
    if (barrier) {
        barrierRunning_ = false;
    } else {
        --running_;
    }
    pump(lock);
    if (pending_.empty() && running_ == 0 && !barrierRunning_) {
        idle_.notify_all();
    }
}

}  // namespace morvane::platform
