// The status area on Qt's system tray.
#pragma once

#include "Platform/Log.h"
#include "Platform/StatusItem.h"

#include <memory>

namespace tessary {

class QtMenu;
class QtStatusItem;

/// The item and its menu are shown as soon as there is a panel, which may be before or after they are
/// created, or never. Created on the main thread, before or after Qt's application object; destroyed before
/// it.
class QtStatusBar : public StatusBar {
  public:
    /// @param log  outlives the status bar
    explicit QtStatusBar(Log& log);
    QtStatusBar(const QtStatusBar&) = delete;
    QtStatusBar& operator=(const QtStatusBar&) = delete;
    ~QtStatusBar() override;

    std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength length) override;
    std::shared_ptr<Menu> makeMenu() override;

    /// Qt's application object exists: starts to look for a panel.
    void displayAnswered();

    /// The content of the menu has changed: updates the panel's copy.
    void menuContentDidChange();

  private:
    Log& log_;
    std::weak_ptr<QtStatusItem> item_;
    std::weak_ptr<QtMenu> menu_;
    bool isDisplayThere_ = false;
};

} // namespace tessary
