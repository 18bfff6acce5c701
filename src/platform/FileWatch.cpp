#include "platform/FileWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <QSocketNotifier>

namespace morvane::platform {

namespace {

constexpr std::uint32_t kEvents =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVE_SELF | IN_DELETE_SELF;

}  // namespace

std::unique_ptr<FileWatch> FileWatch::start(const std::filesystem::path& file,
                                            std::function<void()> onEvent) {
    const int descriptor = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    if (::inotify_add_watch(descriptor, file.c_str(), kEvents) < 0) {
        ::close(descriptor);
        return nullptr;
    }
    return std::unique_ptr<FileWatch>(new FileWatch(file, descriptor, std::move(onEvent)));
}

FileWatch::FileWatch(std::filesystem::path path, int descriptor, std::function<void()> onEvent)
    : path_(std::move(path)),
      descriptor_(descriptor),
      onEvent_(std::move(onEvent)),
      notifier_(std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read)) {
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { drain(); });
}

FileWatch::~FileWatch() {
    notifier_.reset();
    ::close(descriptor_);
}

void FileWatch::drain() {
    alignas(inotify_event) char buffer[4096];
    bool changed = false;
    for (;;) {
        const ssize_t length = ::read(descriptor_, buffer, sizeof buffer);
        if (length <= 0) {
            break;
        }
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            if (event->mask & IN_IGNORED) {
                // The file is gone or replaced: the kernel dropped the watch.
                ended_ = true;
            } else {
                changed = true;
            }
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
    if (ended_) {
        notifier_->setEnabled(false);
    }
    if (changed && onEvent_) {
        onEvent_();
    }
}

}  // namespace morvane::platform
