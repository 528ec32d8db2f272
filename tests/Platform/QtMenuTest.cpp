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
    QtMenuTest() { menu.setDelegate(delegate); }

    void show(const std::vector<MenuItem>& items) {
        delegate->items = items; // which a new view asks for
        menu.setItems(items);
    }

    static MenuItem line(const std::string& title, const std::string& action = "",
                         std::function<void()> choose = nullptr) {
        MenuItem item;
        item.title = title;
        item.action = action;
        item.choose = std::move(choose);
        item.isEnabled = !action.empty();
        return item;
    }
    QMenu& hosted(MenuView::Writing writing = MenuView::Writing::dbusmenu) { return menu.makeView(writing); }
    static QStringList titles(const QMenu& shown) {
        QStringList found;
        for (const QAction* action : shown.actions())
            found.append(action->isSeparator() ? QStringLiteral("-") : action->text());
        return found;
    }
    /// Delivers what is due in the event loop.
    static void settle() { QCoreApplication::processEvents(); }

    std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
    QtMenu menu;
};

/// What Qt makes of an action's text on its way to a D-Bus menu, and the panel of that: the first ampersand
/// that is not the last character marks a key, as an underscore does for the panel, which shows two of them
/// as one.
QString shownByDBusMenu(QString text) {
    const qsizetype first = text.indexOf(QLatin1Char('&'));
    if (first >= 0 && first != text.size() - 1) text[first] = QLatin1Char('_');
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == QLatin1Char('_') && i + 1 < text.size()) ++i;
        shown.append(text[i]);
    }
    return shown;
}

/// What a menu of ours shows.
QString shownByWidget(QString text) {
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == QLatin1Char('&') && i + 1 < text.size()) ++i;
        shown.append(text[i]);
    }
    return shown;
}

TEST_F(QtMenuTest, TitlesAreShownLiterallyByEachKindOfPanel) {
    const std::vector<std::string> names{"A & B && C",
                                         "&",
                                         "&&",
                                         "a&",
                                         "__a_b_&_&",
                                         "_",
                                         "a__",
                                         "&_&_",
                                         "🎹🎛️ Björk",
                                         "עברית & عربي",
                                         "x_&y & z_w_",
                                         "Q&A & &",
                                         "no ampersand",
                                         ""};
    show([&] {
        std::vector<MenuItem> items;
        for (const auto& name : names)
            items.push_back(line(name));
        return items;
    }());
    const auto onBus = titles(hosted(MenuView::Writing::dbusmenu));
    const auto inWidget = titles(hosted(MenuView::Writing::widget));
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto row = static_cast<qsizetype>(i);
        EXPECT_EQ(shownByDBusMenu(onBus[row]).toStdString(), names[i]);
        EXPECT_EQ(shownByWidget(inWidget[row]).toStdString(), names[i]);
    }
}

TEST_F(QtMenuTest, ATitleStaysOnOneLineAndInOneColumn) {
    show({line("a\tb\nc\x7f"
               "d\u2028e\u0085f")});
    EXPECT_EQ(titles(hosted()), QStringList{QStringLiteral("a b c d e f")});
}

TEST_F(QtMenuTest, LinesThatStayAreNeverReplaced) {
    const auto items = [&](const std::vector<std::string>& peers, bool hasEvent) {
        std::vector<MenuItem> all{line("status"), MenuItem::separator()};
        for (const auto& peer : peers)
            all.push_back(line(peer));
        all.push_back(MenuItem::separator());
        all.push_back(line("Auto-connect", "toggleAutoConnect"));
        all.push_back(MenuItem::separator());
        if (hasEvent) all.insert(all.end(), {line("event"), MenuItem::separator()});
        all.push_back(line("Quit", "terminate"));
        return all;
    };
    show(items({"No peers visible"}, false));
    QMenu& shown = hosted();
    const auto at = [&](qsizetype i) { return shown.actions().at(i); };
    const auto last = [&](qsizetype fromEnd) {
        return shown.actions().at(shown.actions().size() - 1 - fromEnd);
    };
    auto* status = at(0);
    auto* firstPeer = at(2);
    auto* quit = last(0);

    show(items({"a", "b", "c"}, true));
    EXPECT_EQ(titles(shown),
              QStringList({"status", "-", "a", "b", "c", "-", "Auto-connect", "-", "event", "-", "Quit"}));
    EXPECT_EQ(at(0), status);
    EXPECT_EQ(at(2), firstPeer);
    EXPECT_EQ(last(0), quit);

    auto* secondPeer = at(3);
    show(items({"b", "c"}, true));
    EXPECT_EQ(titles(shown),
              QStringList({"status", "-", "b", "c", "-", "Auto-connect", "-", "event", "-", "Quit"}));
    EXPECT_EQ(at(2), firstPeer) << "it has only got another title";
    EXPECT_EQ(at(3), secondPeer);
    EXPECT_EQ(last(0), quit);

    show({});
    EXPECT_TRUE(shown.actions().isEmpty());
    show(items({}, false));
    EXPECT_EQ(titles(shown), QStringList({"status", "-", "-", "Auto-connect", "-", "Quit"}));
}

TEST_F(QtMenuTest, IsFreshWhenItOpensAndStillWhileItIsOpen) {
    QMenu& shown = hosted();
    delegate->items = {line("one")};
    Q_EMIT shown.aboutToShow();
    EXPECT_EQ(titles(shown), QStringList{"one"});

    delegate->items = {line("two")};
    menu.contentDidChange();
    settle();
    EXPECT_EQ(titles(shown), QStringList{"one"}) << "it is open";
    Q_EMIT shown.aboutToHide();
    settle();
    EXPECT_EQ(titles(shown), QStringList{"two"}) << "for a panel that will not ask";

    Q_EMIT shown.aboutToShow(); // and this panel never tells that it has closed the menu
    delegate->items = {line("three")};
    Q_EMIT shown.aboutToShow();
    EXPECT_EQ(titles(shown), QStringList{"three"});
}

TEST_F(QtMenuTest, ManyChangesAreOneUpdate) {
    hosted();
    delegate->updates = 0;
    for (int i = 0; i < 100; ++i)
        menu.contentDidChange();
    settle();
    EXPECT_EQ(delegate->updates, 1);
    delegate.reset();
    menu.contentDidChange();
    settle(); // nobody to ask any more
}

TEST_F(QtMenuTest, ACheckmarkShowsWhatIsAndNotWhatWasClicked) {
    int chosen = 0;
    auto item = line("Start at Login", "toggleStartAtLogin", [&] { ++chosen; });
    item.isOn = false;
    show({item});
    QAction* action = hosted().actions().at(0);
    EXPECT_TRUE(action->isCheckable());
    action->trigger(); // it checks itself, but the service refuses
    EXPECT_EQ(chosen, 1);
    settle();
    EXPECT_FALSE(action->isChecked());
    EXPECT_EQ(action->shortcut(), QKeySequence());

    delegate->items[0].isOn = std::nullopt;
    delegate->items[0].keyEquivalent = "q";
    menu.contentDidChange();
    settle();
    EXPECT_FALSE(action->isCheckable());
    EXPECT_EQ(action->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
}

TEST(QtTextTest, OrdersByCodePointsOfTheCanonicalComposition) {
    const QtText text;
    EXPECT_EQ(text.collationKey("e\u0301"), text.collationKey("\u00e9"));
    EXPECT_EQ(text.collationKey("\u212b"), text.collationKey("\u00c5")); // the ångström sign
    EXPECT_LT(text.collationKey("Alpha"), text.collationKey("alpha"));
    EXPECT_LT(text.collationKey("\uffee"), text.collationKey("\U0001f3b9")) << "by code points, not UTF-16";
    EXPECT_LT(text.collationKey("Z"), text.collationKey("a"));
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    const QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
