// The status area on Qt's system tray.
#pragma once

#include "Platform/StatusItem.h"

#include <memory>

namespace tessary {

class QtMenu;
class QtStatusItem;

/// The items and the menu show as soon as there is a panel, which may be before or after they are made, or
/// never. Made on the main thread, before or after Qt's application object; destroyed before it.
class QtStatusBar : public StatusBar {
  public:
    QtStatusBar();
    QtStatusBar(const QtStatusBar&) = delete;
    QtStatusBar& operator=(const QtStatusBar&) = delete;
    ~QtStatusBar() override;

    std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength length) override;
    std::shared_ptr<Menu> makeMenu() override;

    /// Qt's application object is there: from now on a panel is looked for.
    void displayAnswered();

    /// Something that the menus show has changed: what a panel holds of them is brought up to date.
    void menuContentDidChange();

  private:
    std::weak_ptr<QtStatusItem> item_;
    std::weak_ptr<QtMenu> menu_;
    bool isDisplayThere_ = false;
};

} // namespace tessary
