#include "Platform/qt/QtMenu.h"

#include <QAction>
#include <QFontDatabase>
#include <QTimer>
#include <algorithm>
#include <utility>

namespace tessary {

namespace {

/// Replaces control characters and line separators, which would end the line or split it into columns, by
/// spaces.
QString onOneLine(const std::string& utf8) {
    QString text = QString::fromStdString(utf8);
    for (QChar& character : text)
        if (character.category() == QChar::Other_Control || character == QChar::LineSeparator ||
            character == QChar::ParagraphSeparator)
            character = QLatin1Char(' ');
    return text;
}

QString written(const std::string& title, MenuView::Writing writing) {
    QString text = onOneLine(title);
    if (writing == MenuView::Writing::widget) return text.replace(QLatin1Char('&'), QLatin1String("&&"));
    text.replace(QLatin1Char('_'), QLatin1String("__"));
    // Qt exports the first `&` as `_`, which marks the character after it; an `&` at the end stays as it is.
    const qsizetype first = text.indexOf(QLatin1Char('&'));
    if (first >= 0 && first != text.size() - 1) text.insert(first, QLatin1Char('&'));
    return text;
}

QFont fontOf(const TextStyle& style) {
    QFont font = style.isMonospaced ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : QFont();
    font.setPointSizeF(style.points);
    return font;
}

/// Most lines of the menu are disabled but informative, so they need more contrast than disabled text usually
/// has: two thirds of the text's colour, one third of the background's.
QPalette withReadableDisabledText(QPalette palette) {
    for (const auto& [role, ground] : {std::pair{QPalette::WindowText, QPalette::Window},
                                       {QPalette::Text, QPalette::Base},
                                       {QPalette::ButtonText, QPalette::Button}}) {
        const QColor text = palette.color(QPalette::Active, role);
        const QColor below = palette.color(QPalette::Active, ground);
        const auto mixed = [](int a, int b) { return (2 * a + b) / 3; };
        palette.setColor(QPalette::Disabled, role,
                         QColor(mixed(text.red(), below.red()), mixed(text.green(), below.green()),
                                mixed(text.blue(), below.blue())));
    }
    return palette;
}

} // namespace

MenuView::MenuView(Writing writing, std::function<void(const std::string&)> chosen)
    : writing_(writing)
    , chosen_(std::move(chosen)) {
    if (writing == Writing::widget) menu_.setPalette(withReadableDisabledText(menu_.palette()));
}

bool MenuView::matches(const Row& row, const MenuItem& item) {
    return row.line->isSeparator() == item.isSeparator && row.action == item.action;
}

void MenuView::show(const std::vector<MenuItem>& items) {
    // The common rows at the beginning and at the end stay; only the rows between are added or removed.
    const auto [row, item] = std::ranges::mismatch(rows_, items, matches);
    const auto head = static_cast<std::size_t>(row - rows_.begin());
    std::size_t tail = 0;
    while (tail < std::min(rows_.size(), items.size()) - head &&
           matches(rows_[rows_.size() - 1 - tail], items[items.size() - 1 - tail]))
        ++tail;

    while (rows_.size() > head + tail) {
        const auto last = rows_.end() - static_cast<std::ptrdiff_t>(tail) - 1;
        delete last->line; // also removes it from the menu
        rows_.erase(last);
    }
    QAction* before = tail > 0 ? rows_[head].line : nullptr;
    for (std::size_t i = head; i < items.size() - tail; ++i)
        rows_.insert(rows_.begin() + static_cast<std::ptrdiff_t>(i), makeRow(items[i], before));
    for (std::size_t i = 0; i < items.size(); ++i)
        if (!items[i].isSeparator) update(*rows_[i].line, items[i]);
}

MenuView::Row MenuView::makeRow(const MenuItem& item, QAction* before) {
    auto* line = new QAction(&menu_);
    line->setSeparator(item.isSeparator);
    if (!item.isSeparator) update(*line, item);
    if (!item.action.empty())
        QObject::connect(line, &QAction::triggered, &menu_, [this, name = item.action] { chosen_(name); });
    menu_.insertAction(before, line);
    return {line, item.action};
}

void MenuView::update(QAction& line, const MenuItem& item) const {
    // Each setter notifies the panel only of an actual change. Choosing a line has flipped its checkmark, so
    // the mark is compared with the action's current state, not with the previous item.
    line.setText(written(item.title, writing_));
    line.setEnabled(item.isEnabled);
    line.setCheckable(item.isOn.has_value());
    line.setChecked(item.isOn.value_or(false));
    line.setShortcut(item.keyEquivalent.empty() ? QKeySequence()
                                                : QKeySequence(QStringLiteral("Ctrl+") +
                                                               QString::fromStdString(item.keyEquivalent)));
    // Disabled lines are drawn in the secondary colour anyway. The D-Bus menu protocol has no fonts.
    if (item.style && writing_ == Writing::widget) line.setFont(fontOf(*item.style));
}

void QtMenu::setItems(std::vector<MenuItem> items) {
    items_ = std::move(items);
    if (view_) view_->show(items_);
}

void QtMenu::contentDidChange() {
    if (!view_ || std::exchange(isUpdatePending_, true)) return;
    QTimer::singleShot(0, &context_, [this] {
        isUpdatePending_ = false;
        if (!isOpen_) needsUpdate();
    });
}

void QtMenu::needsUpdate() {
    if (const auto delegate = delegate_.lock()) delegate->menuNeedsUpdate(*this);
}

QMenu& QtMenu::makeView(MenuView::Writing writing) {
    view_ = std::make_unique<MenuView>(writing, [this](const std::string& action) { choose(action); });
    QMenu& menu = view_->menu();
    QObject::connect(&menu, &QMenu::aboutToShow, &context_, [this] { willOpen(); });
    QObject::connect(&menu, &QMenu::aboutToHide, &context_, [this] { didClose(); });
    isOpen_ = false; // an open view belonged to a bus that has ended
    needsUpdate();
    view_->show(items_);
    return menu;
}

void QtMenu::willOpen() {
    needsUpdate(); // even if isOpen_: some panels do not report that the menu was closed
    isOpen_ = true;
}

void QtMenu::didClose() {
    isOpen_ = false;
    contentDidChange();
}

void QtMenu::choose(const std::string& action) {
    const auto item = std::ranges::find(items_, action, &MenuItem::action);
    if (item == items_.end()) return;
    const auto choose = item->choose; // a copy, because the call may replace the items
    didClose();                       // also corrects a checkmark that choosing has flipped
    choose();
}

} // namespace tessary
