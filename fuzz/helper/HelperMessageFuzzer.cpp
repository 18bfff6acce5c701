// Any bytes, as a peer of the helper's socket sends them, through the frame decoder, the
// message reader and the helper's dispatch, from a user who holds no authorization: nothing
// may crash, hang, leak, or get past the authorization. The helper's files go to a sysroot of
// the fuzzer's own.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "helper/TarnHelper.h"
#include "sys/MessageFrame.h"

namespace {

morvane::TarnHelper* helper = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static char folder[] = "/tmp/morvane-helper-fuzz-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        abort();
    }
    setenv("MORVANECLOUD_SYSROOT", folder, 1);
    std::atexit([] { std::filesystem::remove_all(folder); });
    // Never reached by a message without an authorization, and not the fuzzer's to touch.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    helper = new morvane::TarnHelper(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    morvane::sys::FrameDecoder decoder;
    // Fed in two pieces, as a stream arrives, split by the first byte.
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::size_t split = size == 0 ? 0 : data[0] % size;
    decoder.feed(bytes.substr(0, split));
    decoder.feed(bytes.substr(split));
    morvane::sys::MessageServer::Connection connection{1, {1, 4242, 4242}};
    nlohmann::json object;
    while (decoder.next(object) == morvane::sys::FrameDecoder::Status::Message) {
        std::string error;
        const auto message = morvane::sys::Message::fromJson(object, error);
        if (!message || message->isReply) {
            continue;
        }
        // Token making is the one thing a stranger may ask for; it only adds to a list.
        if (message->message == "AuthorizationCreate") {
            continue;
        }
        const auto outcome = helper->handle(connection, *message);
        // Without an authorization every operation is refused; only the right look-ups
        // answer with a status instead.
        if (outcome.accepted && !outcome.reply.contains("error") &&
            !outcome.reply.contains("status")) {
            abort();
        }
    }
    return 0;
}
