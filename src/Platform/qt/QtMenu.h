// A menu on Qt.
#pragma once

#include "Platform/StatusItem.h"

#include <QMenu>
#include <QObject>
#include <memory>
#include <string>
#include <vector>

namespace tessary {

/// One place where the items show. Its actions live long and are changed to match the items: a panel that
/// reads the menu over D-Bus caches what it has read, and shows stale or empty lines when all items get new
/// numbers.
class MenuView {
  public:
    /// How a title has to be written so that it shows literally.
    enum class Writing {
        widget,   ///< `&` marks the key of a line
        dbusmenu, ///< `_` does, and Qt makes one of the first `&`
    };

    /// @param chosen  called with the name of the action whose line was chosen
    MenuView(Writing writing, std::function<void(const std::string&)> chosen);

    QMenu& menu() { return menu_; }
    void show(const std::vector<MenuItem>& items);

  private:
    struct Row {
        QAction* line; ///< the menu's
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

/// Asks its delegate for fresh items before it is seen. It also does so when it is told that the content has
/// changed, because some panels show what they have without asking; but never under the eyes of a reader.
class QtMenu : public Menu {
  public:
    void setDelegate(std::weak_ptr<MenuDelegate> delegate) override { delegate_ = std::move(delegate); }
    void setItems(std::vector<MenuItem> items) override;

    /// The items are out of date. Many calls in one turn of the event loop cost as much as one.
    void contentDidChange();

    /// The menu for the panel. Called once.
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
    QObject context_; ///< last: when it goes, nothing arrives any more
};

} // namespace tessary
