// Names from the network, on their way into the log and the menu.
#include "Models/UTF8.h"
#include "Platform/qt/QtMenu.h"
#include "Platform/system/StandardOutputLog.h"
#include "Require.h"

#include <QAction>
#include <QApplication>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace tessary;
using fuzz::require;

namespace {

/// The length of the well-formed character at the front by the table of the Unicode Standard (3-7); 0 if
/// there is none.
std::size_t wellFormed(std::string_view text) {
    struct Row {
        int first[2], second[2];
        std::size_t length;
    };
    static constexpr Row table[] = {
        {{0x00, 0x7F}, {0, 0}, 1},       {{0xC2, 0xDF}, {0x80, 0xBF}, 2}, {{0xE0, 0xE0}, {0xA0, 0xBF}, 3},
        {{0xE1, 0xEC}, {0x80, 0xBF}, 3}, {{0xED, 0xED}, {0x80, 0x9F}, 3}, {{0xEE, 0xEF}, {0x80, 0xBF}, 3},
        {{0xF0, 0xF0}, {0x90, 0xBF}, 4}, {{0xF1, 0xF3}, {0x80, 0xBF}, 4}, {{0xF4, 0xF4}, {0x80, 0x8F}, 4}};
    const auto within = [&](std::size_t at, const int(&range)[2]) {
        const int byte = static_cast<unsigned char>(text[at]);
        return byte >= range[0] && byte <= range[1];
    };
    for (const Row& row : table) {
        if (!within(0, row.first)) continue;
        if (text.size() < row.length) return 0;
        if (row.length > 1 && !within(1, row.second)) return 0;
        for (std::size_t i = 2; i < row.length; ++i)
            if (!within(i, {0x80, 0xBF})) return 0;
        return row.length;
    }
    return 0;
}

bool isControl(std::string_view character) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(character[i]); };
    if (character.size() == 1) return byte(0) < 0x20 || byte(0) == 0x7F;
    if (character.size() == 2) return byte(0) == 0xC2 && byte(1) < 0xA0;
    return character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9"; // line and paragraph separator
}

/// What stands on a line for a character that must not, or for a byte that is none.
bool isEscape(std::string_view shown) {
    return shown.starts_with("\\n") || shown.starts_with("\\r") || shown.starts_with("\\t") ||
           shown.starts_with("\\u{") || shown.starts_with("\\x");
}

struct Slow {
    bool isUTF8 = true;
    std::string onOneLine; ///< controls are spaces
};

/// Goes through the name and through what is shown of it side by side.
Slow compare(std::string_view name, std::string_view shown) {
    Slow slow;
    while (!name.empty()) {
        const std::size_t length = wellFormed(name);
        const std::string_view character = name.substr(0, std::max<std::size_t>(length, 1));
        if (length == 0) {
            slow.isUTF8 = false;
            require(shown.starts_with("\\x") && shown.size() >= 4, "a byte that is no UTF-8");
            shown.remove_prefix(4);
        } else if (isControl(character)) {
            require(isEscape(shown), "a control character is escaped");
            shown.remove_prefix(shown.starts_with("\\u") ? shown.find('}') + 1 : 2);
            slow.onOneLine += ' ';
        } else {
            require(shown.starts_with(character), "everything else stays");
            shown.remove_prefix(length);
            slow.onOneLine += character;
        }
        name.remove_prefix(character.size());
    }
    require(shown.empty(), "and nothing is added");
    return slow;
}

/// What a reader of the log gets.
std::string logged(std::string_view name, std::size_t expected) {
    static int ends[2];
    static StandardOutputLog& log = [&]() -> StandardOutputLog& {
        require(pipe2(ends, O_CLOEXEC) == 0, "a pipe");
        return *new StandardOutputLog(ends[1]);
    }();
    log.line(name);
    log.line("next");
    std::string text(expected + 6, '\0');
    for (std::size_t got = 0; got < text.size();) {
        const ssize_t more = read(ends[0], text.data() + got, text.size() - got);
        if (more < 0 && errno == EINTR) continue; // the fuzzer's own alarm
        require(more > 0, "the log goes on");
        got += static_cast<std::size_t>(more);
    }
    return text;
}

/// What a panel shows of a text in which one mark stands for a key and two of them for themselves.
QString shownWith(QChar mark, const QString& text) {
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == mark && i + 1 < text.size()) ++i;
        shown.append(text[i]);
    }
    return shown;
}

QString inMenu(MenuView& view, const std::string& title) {
    MenuItem item;
    item.title = title;
    view.show({item});
    return view.menu().actions().at(0)->text();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments) {
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    new QApplication(*count, *arguments); // never destroyed: the fuzzer ends the process in its own way
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    const std::string shown = escapedControls(name);
    const Slow slow = compare(name, shown);
    require(isUTF8(name) == slow.isUTF8, "whether it is UTF-8");
    require(isUTF8(shown), "what is shown is UTF-8");
    require(logged(name, shown.size()) == shown + "\nnext\n", "one line in the log");
    if (!slow.isUTF8) return 0;

    static MenuView& widget = *new MenuView(MenuView::Writing::widget, nullptr);
    static MenuView& panel = *new MenuView(MenuView::Writing::dbusmenu, nullptr);
    const QString expected = QString::fromStdString(slow.onOneLine);
    require(shownWith(QLatin1Char('&'), inMenu(widget, name)) == expected, "literal in a menu of ours");
    // On the way to the panel the first ampersand with a character behind it becomes its mark.
    QString sent = inMenu(panel, name);
    const qsizetype first = sent.indexOf(QLatin1Char('&'));
    if (first >= 0 && first != sent.size() - 1) sent[first] = QLatin1Char('_');
    require(shownWith(QLatin1Char('_'), sent) == expected, "literal in a panel's menu");
    return 0;
}
