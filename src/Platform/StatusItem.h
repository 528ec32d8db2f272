// What the application needs from the machine: one item in the desktop's status area, and its menu.
#pragma once

#include "Models/Image.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tessary {

/// How a title is set in type where the place can show it; elsewhere it shows as plain text.
struct TextStyle {
    double points = 0;
    bool isMonospaced = false;

    friend bool operator==(const TextStyle&, const TextStyle&) = default;
};

/// One line of a menu, or a separator.
struct MenuItem {
    bool isSeparator = false;
    std::string title;            ///< UTF-8, shown literally
    std::string action;           ///< the name of what choosing it does; empty for a line that does nothing
    std::function<void()> choose; ///< does it
    std::string keyEquivalent;    ///< a letter that chooses it together with Ctrl; empty for none
    bool isEnabled = true;
    std::optional<bool> isOn; ///< a checkmark, or its place; absent for a line that has none
    std::optional<TextStyle> style;

    static MenuItem separator() {
        MenuItem item;
        item.isSeparator = true;
        item.isEnabled = false;
        return item;
    }
};

class Menu;

class MenuDelegate {
  public:
    virtual ~MenuDelegate() = default;

    /// The menu is about to be seen: now is the time to set its items.
    virtual void menuNeedsUpdate(Menu& menu) = 0;
};

class Menu {
  public:
    virtual ~Menu() = default;

    virtual void setDelegate(std::weak_ptr<MenuDelegate> delegate) = 0;

    /// Replaces all items. Each is enabled or disabled exactly as it says.
    virtual void setItems(std::vector<MenuItem> items) = 0;
};

enum class StatusItemLength {
    square, ///< as wide as the status area is high
};

/// What the desktop's user may do with the item there: any sum of these.
enum class StatusItemBehavior : unsigned {
    none = 0,
};

class StatusItem {
  public:
    virtual ~StatusItem() = default;

    virtual void setBehavior(StatusItemBehavior behavior) = 0;

    /// The identity under which the desktop remembers the item's place.
    virtual void setAutosaveName(const std::string& name) = 0;

    /// The image that stands for the item, without text beside it.
    virtual void setImage(const Image& image) = 0;

    /// What the program asked for; whether a panel is there to show it is another matter.
    virtual bool isVisible() const = 0;
    virtual void setVisible(bool isVisible) = 0;

    virtual void setMenu(std::shared_ptr<Menu> menu) = 0;
};

/// Runs on: the main thread, like all that it makes. Errors: none; without a status area nothing is shown,
/// and what was asked for is done as soon as there is one.
class StatusBar {
  public:
    virtual ~StatusBar() = default;

    /// Makes an item, not visible yet.
    virtual std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength length) = 0;

    /// Makes an empty menu.
    virtual std::shared_ptr<Menu> makeMenu() = 0;
};

} // namespace tessary
