#include "app/DepenencyInjection.h"

#include "app/ChangeObserver.h"
#include "app/UnboundControlManager.h"
#include "core/NotificationPublisher.h"
#include "core/TarnLogger.h"
#include "core/TestData.h"
#include "device/ComputerNameManager.h"
#include "device/DeviceConfigManager.h"
#include "device/DeviceServerAPI.h"
#include "dns/DNSResolver.h"
#include "platform/NotificationCenter.h"
#include "proxy/SharedDefaultsManager.h"
#include "settings/ConfigFileWriter.h"
#include "settings/InstallerHelper.h"
#include "settings/Settings.h"
#include "ui/TarnUserNotification.h"
#include "watch/NCSICheck.h"
#include "watch/NetworkCheck.h"
#include "watch/ServiceHosts.h"
#include "watch/VPNMonitor.h"

namespace morvane {

std::vector<Service> DepenencyInjection::serviceTable() {
    using LifeCycle = Service::LifeCycle;
    std::vector<Service> rows;
    rows.push_back(Service::global<Settings>());
    rows.push_back(Service::make<ConfigFileWriter>(LifeCycle::global, [](Dependencies&) {
        auto writer = std::make_shared<ConfigFileWriter>();
        writer->SANDBOXED = true;
        return writer;
    }));
    rows.push_back(Service::make<NotificationPublisher>(LifeCycle::global, [](Dependencies&) {
        return std::make_shared<NotificationPublisher>(
            NotificationPublisher{platform::NotificationCenter::defaultCenter()});
    }));
    rows.push_back(Service::global<TarnUserNotification>());
    rows.push_back(Service::global<ChangeObserver>());
    rows.push_back(Service::global<TarnLogger>());
    rows.push_back(Service::global<DeviceServerAPI>());
    rows.push_back(Service::global<DeviceConfigManager>());
    rows.push_back(Service::global<ComputerNameManager>());
    rows.push_back(Service::global<UnboundControlManager>());
    rows.push_back(Service::global<UnboundUtils>());
    rows.push_back(Service::global<TestData>());
    rows.push_back(Service::global<InstallerHelper>());
    rows.push_back(Service::global<NetworkCheck>());
    rows.push_back(Service::global<VPNMonitor>());
    rows.push_back(Service::global<NCSICheck>());
    rows.push_back(Service::global<SharedDefaultsManager>());
    return rows;
}

DepenencyInjection::DepenencyInjection() {
    dns::DNSResolver::setEchoHost(ServiceHosts::echoHost());
    Dependencies::build(serviceTable());
}

}  // namespace morvane
