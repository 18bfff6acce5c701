#include "provider/Forwarder.h"

namespace morvane::provider {

// The event loop lands in the next commit; until then starting says so plainly.
class Forwarder::Loop {};

Forwarder::Forwarder(ForwarderOptions options) : options_(std::move(options)) {}
Forwarder::~Forwarder() = default;

bool Forwarder::start(const std::string&, std::string& error) {
    error = "The DNS forwarder is not built yet";
    return false;
}
void Forwarder::stop() {}
bool Forwarder::running() const {
    return false;
}
std::string Forwarder::listeningAddress() const {
    return {};
}
void Forwarder::setPolicy(Policy) {}
void Forwarder::setNetworkServers(std::vector<std::string>) {}
void Forwarder::flush() {}
ForwarderStats Forwarder::stats() const {
    return {};
}
void Forwarder::setUpstreamsLostHandler(UpstreamsLostHandler) {}

}  // namespace morvane::provider
