#include "app/ApplicationStartHelper.h"

namespace morvane {

void ApplicationStartHelper::setupDependencies() {
    if (!dependency) {
        dependency.emplace();
    }
}

}  // namespace morvane
