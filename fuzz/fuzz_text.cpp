// Names from the network, on their way into the log and the menu. Qt's decoder judges what is UTF-8.
#include "Fuzz.h"
#include "Models/UTF8.h"
#include "Platform/qt/QtMenu.h"

#include <QAction>
#include <QApplication>
#include <QStringDecoder>

using namespace tessary;
using fuzz::require;

namespace {

bool endsOrDisturbsALine(QChar c) {
    const auto category = c.category();
    return category == QChar::Other_Control || category == QChar::Separator_Line ||
           category == QChar::Separator_Paragraph;
}

/// What a panel shows of a text in which one mark stands for a key and two of them for themselves.
QString shownWith(char mark, const QString& text) {
    QString shown;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == QLatin1Char(mark) && i + 1 < text.size()) ++i;
        shown.append(text[i]);
    }
    return shown;
}

QString inMenu(MenuView::Writing writing, const std::string& title) {
    MenuView view(writing, nullptr);
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
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
    const QString decoded = decoder.decode(QByteArrayView(name.data(), static_cast<qsizetype>(name.size())));
    require(isUTF8(name) == !decoder.hasError(), "whether it is UTF-8");

    const std::string logged = escapedControls(name);
    require(isUTF8(logged), "the log is UTF-8");
    const QString inLog = QString::fromStdString(logged);
    require(std::none_of(inLog.begin(), inLog.end(), endsOrDisturbsALine), "one line in the log");
    if (decoder.hasError()) return 0;

    QString inLine = decoded;
    std::replace_if(inLine.begin(), inLine.end(), endsOrDisturbsALine, QLatin1Char(' '));
    require(inLine != decoded || logged == name, "without controls it stays as it is in the log");
    require(shownWith('&', inMenu(MenuView::Writing::widget, name)) == inLine, "literal in a menu of ours");
    // On the way to the panel the first ampersand with a character behind it becomes its mark.
    QString sent = inMenu(MenuView::Writing::dbusmenu, name);
    const qsizetype first = sent.indexOf(QLatin1Char('&'));
    if (first >= 0 && first != sent.size() - 1) sent[first] = QLatin1Char('_');
    require(shownWith('_', sent) == inLine, "literal in a panel's menu");
    return 0;
}
