#include "Platform/qt/QtMenu.h"

#include "Platform/qt/QtText.h"

#include <QAction>
#include <QApplication>
#include <gtest/gtest.h>

using namespace tessary;

namespace {

struct Delegate : MenuDelegate {
    void menuNeedsUpdate(Menu& menu) override {
        ++updates;
        menu.setItems(items);
    }
    std::vector<MenuItem> items;
    int updates = 0;
};

class QtMenuTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        static char name[] = "test";
        static char* arguments[] = {name, nullptr};
        static int count = 1;
        setenv("QT_QPA_PLATFORM", "offscreen", 1);
        static const QApplication application(count, arguments);
    }
    QtMenuTest() { menu.setDelegate(delegate); }

    /// A separator for "-".
    static MenuItem line(const std::string& title, const std::string& action = "") {
        if (title == "-") return MenuItem::separator();
        MenuItem item;
        item.title = title;
        item.action = action;
        item.isEnabled = !action.empty();
        return item;
    }
    void offer(const QStringList& titles) {
        delegate->items.clear();
        for (const QString& title : titles)
            delegate->items.push_back(line(title.toStdString(), title == "Quit" ? "terminate" : ""));
    }
    QStringList shown() const {
        QStringList found;
        for (const QAction* action : view->actions())
            found.append(action->isSeparator() ? QStringLiteral("-") : action->text());
        return found;
    }
    void open() { view = &menu.makeView(MenuView::Writing::dbusmenu); }
    /// Tells the menu of a change, and runs what is due in the event loop.
    void change() {
        menu.contentDidChange();
        QCoreApplication::processEvents();
    }

    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    QtMenu menu;
    QMenu* view = nullptr;
};

// Panels show stale or empty lines when lines that stay are replaced.
TEST_F(QtMenuTest, LinesThatStayAreNeverReplaced) {
    menu.setItems({line("there is no panel yet")});
    open();
    QList<QAction*> before;
    struct {
        QStringList titles;
        qsizetype keptAtTop, keptAtBottom;
    } const steps[] = {
        {{"status", "-", "No peers visible", "-", "Quit"}, 0, 0},
        {{"status", "-", "a", "b", "c", "-", "event", "-", "Quit"}, 3, 2},
        {{"status", "-", "b", "c", "-", "event", "-", "Quit"}, 4, 4},
        {{}, 0, 0},
        {{"status", "-", "-", "Quit"}, 0, 0},
    };
    for (const auto& [titles, keptAtTop, keptAtBottom] : steps) {
        offer(titles);
        change();
        ASSERT_EQ(shown(), titles);
        const auto now = view->actions();
        EXPECT_EQ(now.first(keptAtTop), before.first(keptAtTop));
        EXPECT_EQ(now.last(keptAtBottom), before.last(keptAtBottom));
        before = now;
    }
}

TEST_F(QtMenuTest, IsCurrentWhenItOpensAndUnchangedWhileItIsOpen) {
    open();
    offer({"one"});
    Q_EMIT view->aboutToShow();
    EXPECT_EQ(shown(), QStringList{"one"});
    offer({"two"});
    change();
    EXPECT_EQ(shown(), QStringList{"one"}) << "it is open";
    Q_EMIT view->aboutToHide();
    QCoreApplication::processEvents();
    EXPECT_EQ(shown(), QStringList{"two"}) << "also for a panel that reads without opening";

    Q_EMIT view->aboutToShow(); // some panels never report that they have closed it
    offer({"three"});
    Q_EMIT view->aboutToShow();
    EXPECT_EQ(shown(), QStringList{"three"});
}

TEST_F(QtMenuTest, ManyChangesAreOneUpdate) {
    open();
    delegate->updates = 0;
    menu.contentDidChange();
    change();
    EXPECT_EQ(delegate->updates, 1);
    delegate.reset();
    change(); // without a delegate
}

// Qt toggles the checkmark of a line that is chosen, but the service may refuse.
TEST_F(QtMenuTest, ACheckmarkShowsTheStateAndNotTheClick) {
    int chosen = 0;
    delegate->items = {line("Start at Login", "toggleStartAtLogin")};
    MenuItem& item = delegate->items[0];
    item.choose = [&] { ++chosen; };
    item.isOn = false;
    open();
    QAction* action = view->actions().at(0);
    EXPECT_TRUE(action->isCheckable());
    action->trigger();
    EXPECT_EQ(chosen, 1);
    QCoreApplication::processEvents();
    EXPECT_FALSE(action->isChecked());
    EXPECT_EQ(action->shortcut(), QKeySequence());

    item.isOn = std::nullopt;
    item.keyEquivalent = "q";
    change();
    EXPECT_FALSE(action->isCheckable());
    EXPECT_EQ(action->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
}

TEST(QtTextTest, OrdersByCodePointsOfTheCanonicalComposition) {
    const QtText text;
    EXPECT_EQ(text.collationKey("e\u0301"), text.collationKey("\u00e9"));
    EXPECT_EQ(text.collationKey("\u212b"), text.collationKey("\u00c5")); // the ångström sign
    EXPECT_LT(text.collationKey("\uffee"), text.collationKey("\U0001f3b9")) << "by code points, not UTF-16";
    EXPECT_LT(text.collationKey("Z"), text.collationKey("a"));
}

} // namespace
