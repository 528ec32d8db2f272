// The status area on Qt's system tray.
#pragma once

#include "Platform/StatusItem.h"

#include <memory>

namespace tessary {

class QtMenu;
class QtStatusItem;

/// The items and the menu show as soon as there is a panel, which may be before or after they are made, or
/// never. Made and destroyed on the main thread, while there is an application object.
class QtStatusBar : public StatusBar {
  public:
    QtStatusBar();
    QtStatusBar(const QtStatusBar&) = delete;
    QtStatusBar& operator=(const QtStatusBar&) = delete;
    ~QtStatusBar() override;

    std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength length) override;
    std::shared_ptr<Menu> makeMenu() override;

    /// Something that the menus show has changed: what a panel holds of them is brought up to date.
    void menuContentDidChange();

  private:
    std::weak_ptr<QtMenu> menu_;
};

} // namespace tessary
