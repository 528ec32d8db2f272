// A menu on Qt.
#pragma once

#include "Platform/StatusItem.h"

#include <QMenu>
#include <QObject>
#include <memory>
#include <string>
#include <vector>

namespace tessary {

/// One view of the items. Its actions are kept and changed to match the items: a panel that reads the menu
/// over D-Bus caches it, and shows stale or empty lines when all items receive new identifiers.
class MenuView {
  public:
    /// The escaping with which a title is shown literally.
    enum class Writing {
        widget,   ///< `&` marks the access key
        dbusmenu, ///< `_` marks the access key, and Qt converts the first `&` into `_`
    };

    /// @param chosen  called with the `MenuItem::action` of the line that was chosen
    MenuView(Writing writing, std::function<void(const std::string&)> chosen);

    QMenu& menu() { return menu_; }
    void show(const std::vector<MenuItem>& items);

  private:
    struct Row {
        QAction* line; ///< owned by the menu
        std::string action;
    };
    static bool matches(const Row& row, const MenuItem& item);
    Row makeRow(const MenuItem& item, QAction* before);
    void update(QAction& line, const MenuItem& item) const;

    const Writing writing_;
    const std::function<void(const std::string&)> chosen_;
    QMenu menu_;
    std::vector<Row> rows_;
};

/// Requests current items from its delegate before it opens. It also does so after `contentDidChange`,
/// because some panels open the menu without a request; but never while it is open.
class QtMenu : public Menu {
  public:
    void setDelegate(std::weak_ptr<MenuDelegate> delegate) override { delegate_ = std::move(delegate); }
    void setItems(std::vector<MenuItem> items) override;

    /// The items are out of date. Several calls in one turn of the event loop cause one update.
    void contentDidChange();

    /// Makes the menu for the panel; replaces a previous one.
    QMenu& makeView(MenuView::Writing writing);

  private:
    void needsUpdate();
    void willOpen();
    void didClose();
    void choose(const std::string& action);

    std::weak_ptr<MenuDelegate> delegate_;
    std::vector<MenuItem> items_;
    bool isOpen_ = false;
    bool isUpdatePending_ = false;
    std::unique_ptr<MenuView> view_;
    QObject context_; ///< last member: its destruction disconnects all signals
};

} // namespace tessary
