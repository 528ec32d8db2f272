// Writes the installed icon files, all made from one drawing: the symbolic icon, and the application icon as
// SVG and, for desktops that do not read SVG, as PNG.
//
//   tessary-icons FOLDER    writes into FOLDER with the layout of `hicolor` (freedesktop.org icon theme)

#include "AppDelegate.h"
#include "Platform/qt/ImagePainter.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <array>
#include <cstdio>

using namespace tessary;

namespace {

// The application icon: the drawing in white on a tile.
constexpr double tileMargin = 1.0; // all lengths here are in the drawing's units
constexpr double tileRadius = 4.0;
constexpr double tilePadding = 3.2; // between the tile's edge and the drawing
const QString tileColor = QStringLiteral("#1c5d83");

/// SVG path data of the drawing, for the even-odd fill rule.
QString pathData(const Image& image) {
    const QPainterPath path = outline(image);
    QString data;
    for (int i = 0; i < path.elementCount(); ++i) {
        const QPainterPath::Element point = path.elementAt(i);
        constexpr std::array commands{'M', 'L', 'C', ' '}; // by ElementType
        data += QLatin1Char(commands[point.type]) + QString::number(point.x) + QLatin1Char(' ') +
                QString::number(point.y);
    }
    return data;
}

/// In the text colour, which GTK and KDE set in different ways. Other panels keep the grey, which has a
/// contrast of 3 to 1 on white and on dark grey (#353535).
QByteArray symbolicSVG(const Image& image) {
    return QStringLiteral(
               R"svg(<svg xmlns="http://www.w3.org/2000/svg" width="16" height="16" viewBox="0 0 %1 %2">
  <style id="current-color-scheme" type="text/css">.ColorScheme-Text { color: #898989; }</style>
  <path class="ColorScheme-Text" fill="currentColor" fill-rule="evenodd" d="%3"/>
</svg>
)svg")
        .arg(QString::number(image.width), QString::number(image.height), pathData(image))
        .toUtf8();
}

QByteArray applicationSVG(const Image& image) {
    const double tile = image.width - 2 * tileMargin;
    const double scale = (tile - 2 * tilePadding) / image.width;
    return QStringLiteral(
               R"svg(<svg xmlns="http://www.w3.org/2000/svg" width="128" height="128" viewBox="0 0 %1 %2">
  <rect x="%3" y="%3" width="%4" height="%4" rx="%5" fill="%6"/>
  <path transform="translate(%7 %7) scale(%8)" fill="#ffffff" fill-rule="evenodd" d="%9"/>
</svg>
)svg")
        .arg(QString::number(image.width), QString::number(image.height), QString::number(tileMargin),
             QString::number(tile), QString::number(tileRadius), tileColor,
             QString::number(tileMargin + tilePadding), QString::number(scale), pathData(image))
        .toUtf8();
}

QByteArray applicationPNG(const Image& image, int size) {
    QImage pixels(size, size, QImage::Format_ARGB32_Premultiplied);
    pixels.fill(Qt::transparent);
    QPainter painter(&pixels);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / image.width, size / image.width);
    const double tile = image.width - 2 * tileMargin;
    QPainterPath path;
    path.addRoundedRect(tileMargin, tileMargin, tile, tile, tileRadius, tileRadius);
    painter.fillPath(path, QColor(tileColor));
    painter.translate(tileMargin + tilePadding, tileMargin + tilePadding);
    const double scale = (tile - 2 * tilePadding) / image.width;
    painter.scale(scale, scale);
    painter.fillPath(outline(image), Qt::white);
    painter.end();
    QByteArray bytes;
    QBuffer buffer(&bytes);
    pixels.save(&buffer, "PNG");
    return bytes;
}

bool write(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    return QFileInfo(path).dir().mkpath(QStringLiteral(".")) && file.open(QIODevice::WriteOnly) &&
           file.write(bytes) == bytes.size() && file.flush();
}

bool writeAll(const QString& folder) {
    const Image image = AppDelegate::makeStatusBarIcon();
    bool isWritten =
        write(folder + QStringLiteral("/symbolic/apps/tessary-link-symbolic.svg"), symbolicSVG(image)) &&
        write(folder + QStringLiteral("/scalable/apps/tessary-link.svg"), applicationSVG(image));
    for (const int size : {16, 22, 24, 32, 48, 64, 128, 256})
        isWritten = isWritten && write(folder + QStringLiteral("/%1x%1/apps/tessary-link.png").arg(size),
                                       applicationPNG(image, size));
    return isWritten;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && writeAll(QString::fromLocal8Bit(argv[1]))) return 0;
    std::fputs("usage: tessary-icons FOLDER, which can be written to\n", stderr);
    return 1;
}
