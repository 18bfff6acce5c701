#pragma once

#include <filesystem>
#include <functional>
#include <memory>

class QSocketNotifier;

namespace morvane::platform {

/// A watch on one file (inotify): every change of its content, its attributes, its name or
/// its existence calls `onEvent` on the main thread, once per batch of changes the kernel
/// reports together. The watch follows the file, not the name: once the file has been
/// replaced or removed it hears nothing more. Needs the Qt event loop; start it on the main
/// thread.
class FileWatch {
public:
    /// Nothing when the file cannot be watched (it does not exist, or no watch is left).
    static std::unique_ptr<FileWatch> start(const std::filesystem::path& file,
                                            std::function<void()> onEvent);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    FileWatch(std::filesystem::path path, int descriptor, std::function<void()> onEvent);
    void drain();

    std::filesystem::path path_;
    int descriptor_;
    std::function<void()> onEvent_;
    std::unique_ptr<QSocketNotifier> notifier_;
    bool ended_ = false;
};

}  // namespace morvane::platform
