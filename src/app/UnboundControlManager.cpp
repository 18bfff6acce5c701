#include "app/UnboundControlManager.h"

namespace morvane {

UnboundControlManager::UnboundControlManager()
    : tarnhelperProxy(std::make_shared<TarnHelperProxy>()) {}

}  // namespace morvane
