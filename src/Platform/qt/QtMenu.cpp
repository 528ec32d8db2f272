#include "Platform/qt/QtMenu.h"

#include <QAction>
#include <QFontDatabase>
#include <QTimer>
#include <algorithm>
#include <utility>

namespace tessary {

namespace {

/// One line of text: what would end it or split it into columns becomes a space.
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
    // Qt sends the first `&` as `_`, which marks the character behind it; unless nothing is behind it.
    const qsizetype first = text.indexOf(QLatin1Char('&'));
    if (first >= 0 && first != text.size() - 1) text.insert(first, QLatin1Char('&'));
    return text;
}

QFont fontOf(const TextStyle& style) {
    QFont font = style.isMonospaced ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : QFont();
    font.setPointSizeF(style.points);
    return font;
}

/// Most of what the menu tells stands in lines that cannot be chosen: they must be readable, which the usual
/// colour of disabled text is not meant to be. Two thirds of the way from the ground to the text.
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
    // What both have in common at the beginning and at the end stays; only rows between are added or removed.
    const auto [row, item] = std::ranges::mismatch(rows_, items, matches);
    const auto head = static_cast<std::size_t>(row - rows_.begin());
    std::size_t tail = 0;
    while (tail < std::min(rows_.size(), items.size()) - head &&
           matches(rows_[rows_.size() - 1 - tail], items[items.size() - 1 - tail]))
        ++tail;

    while (rows_.size() > head + tail) {
        const auto last = rows_.end() - static_cast<std::ptrdiff_t>(tail) - 1;
        delete last->line; // which takes it out of the menu
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
    // Each of these tells the panel only of a real change. A line that was chosen has flipped its checkmark
    // by itself, so the mark is compared with what the line shows, not with what it was given.
    line.setText(written(item.title, writing_));
    line.setEnabled(item.isEnabled);
    line.setCheckable(item.isOn.has_value());
    line.setChecked(item.isOn.value_or(false));
    line.setShortcut(item.keyEquivalent.empty() ? QKeySequence()
                                                : QKeySequence(QStringLiteral("Ctrl+") +
                                                               QString::fromStdString(item.keyEquivalent)));
    // A line that is disabled is drawn in the secondary colour anyway. Over D-Bus there are no fonts.
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
    isOpen_ = false; // it was a view on a bus that has ended
    needsUpdate();
    view_->show(items_);
    return menu;
}

void QtMenu::willOpen() {
    needsUpdate(); // also where a panel has never told that the menu was closed
    isOpen_ = true;
}

void QtMenu::didClose() {
    isOpen_ = false;
    contentDidChange();
}

void QtMenu::choose(const std::string& action) {
    const auto item = std::ranges::find(items_, action, &MenuItem::action);
    if (item == items_.end()) return;
    const auto choose = item->choose; // may replace the items
    didClose();                       // and the checkmark may have to flip back
    choose();
}

} // namespace tessary
