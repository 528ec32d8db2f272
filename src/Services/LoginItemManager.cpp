#include "Services/LoginItemManager.h"

#include "Platform/Log.h"
#include "Platform/LoginService.h"

namespace tessary {

LoginItemManager::LoginItemManager(const Platform& platform)
    : platform_(platform) {
    refresh();
}

void LoginItemManager::setEnabled(bool enabled) {
    LoginService& service = platform_.loginService;
    const auto error = enabled ? service.registerProgram() : service.unregisterProgram();
    if (error) {
        lastError = error->message;
        platform_.log.line("[LoginItem] toggle failed: " + error->description);
    } else {
        lastError = std::nullopt;
    }
    refresh();
}

void LoginItemManager::refresh() {
    isEnabled = platform_.loginService.status() == LoginServiceStatus::enabled;
}

} // namespace tessary
