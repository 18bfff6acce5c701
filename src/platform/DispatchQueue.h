#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace morvane::platform {

/// A queue of blocks run on a shared pool of worker threads, after the model of the
/// platform's dispatch queues.
///
/// - A serial queue runs one block at a time, in order.
/// - A concurrent queue runs its blocks side by side, started in order; a barrier block waits
///   for every block queued before it to finish, runs alone, and holds back every block
///   queued after it until it is done.
///
/// The pool grows when all its threads are busy (a block that waits on another block must
/// never starve the pool) and idle threads leave after a while. A queue stays alive while it
/// has blocks pending, even when its owner has let it go.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
public:
    enum class Kind { serial, concurrent };
    using Block = std::function<void()>;

    static std::shared_ptr<DispatchQueue> create(std::string label, Kind kind = Kind::serial);
    /// The process-wide concurrent queue for work with no queue of its own.
    static std::shared_ptr<DispatchQueue> global();
    /// The label of the queue whose block runs on the calling thread; empty elsewhere.
    static std::string currentLabel();

    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;
    ~DispatchQueue();

    const std::string& label() const { return label_; }
    Kind kind() const { return kind_; }

    void async(Block block);
    void asyncBarrier(Block block);
    /// Runs the block on the queue and waits for it; an exception of the block is thrown
    /// again here. Never call it from a block of the same serial queue, or with a barrier
    /// from a block of the same concurrent queue.
    void sync(Block block);
    void barrierSync(Block block);
    /// Waits until every block queued so far has run (tests and orderly shutdown).
    void waitUntilIdle();

private:
    struct Item {
        Block block;
        bool barrier;
    };

    DispatchQueue(std::string label, Kind kind);
    void enqueue(Block block, bool barrier);
    void pump(std::unique_lock<std::mutex>& lock);
    void finished(bool barrier);

    const std::string label_;
    const Kind kind_;
    std::mutex mutex_;
    std::condition_variable idle_;
    std::deque<Item> pending_;
    std::size_t running_ = 0;
    bool barrierRunning_ = false;
};

}  // namespace morvane::platform
