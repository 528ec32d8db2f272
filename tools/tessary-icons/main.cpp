// Writes the installed icon files, all made from one drawing: the symbolic icon, and the application icon as
// SVG and, for desktops that do not read SVG, as PNG.
//
//   tessary-icons FOLDER    writes into FOLDER with the layout of `hicolor` (freedesktop.org icon theme)

#include "AppDelegate.h"
#include "Platform/qt/ImagePainter.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <cstdio>

using namespace tessary;

namespace {

// The application icon: the drawing in white on a tile.
constexpr double tileMargin = 1.0; // all lengths here are in the drawing's units
constexpr double tileRadius = 4.0;
constexpr double tilePadding = 3.2; // between the tile's edge and the drawing
const QString tileColor = QStringLiteral("#1c5d83");

QString number(double value) {
    return QString::number(value, 'g', 6);
}

/// Builds SVG path data, in which y grows downward.
class PathData {
  public:
    explicit PathData(double height)
        : height_(height) {}

    void add(const RoundedRectangle& rounded, double outset) {
        const double r = rounded.radius + outset;
        const double w = rounded.rectangle.width + 2 * outset;
        const double h = rounded.rectangle.height + 2 * outset;
        const double x = rounded.rectangle.origin.x - outset;
        const double y = height_ - (rounded.rectangle.origin.y - outset) - h;
        const auto corner = [&](double dx, double dy) {
            return QStringLiteral("a%1 %1 0 0 1 %2 %3").arg(number(r), number(dx), number(dy));
        };
        text_ += QStringLiteral("M%1 %2h%3%4v%5%6h%7%8v%9")
                     .arg(number(x + r), number(y), number(w - 2 * r), corner(r, r), number(h - 2 * r),
                          corner(-r, r), number(2 * r - w), corner(-r, -r), number(2 * r - h)) +
                 corner(r, -r) + QLatin1Char('z');
    }
    void add(const Polygon& corners) {
        for (qsizetype i = 0; const Point& corner : corners)
            text_ += (i++ == 0 ? QLatin1Char('M') : QLatin1Char('L')) + number(corner.x) + QLatin1Char(' ') +
                     number(height_ - corner.y);
        text_ += QLatin1Char('z');
    }
    const QString& text() const { return text_; }

  private:
    const double height_;
    QString text_;
};

/// Returns one path for the even-odd fill rule. Outlines become rings, because panels that recolour a
/// symbolic icon fill every path and ignore strokes.
QString pathData(const Image& image) {
    PathData data(image.height);
    for (const Shape& shape : image.draw({{0, 0}, image.width, image.height}))
        for (const auto& subpath : shape.subpaths) {
            if (const auto* rounded = std::get_if<RoundedRectangle>(&subpath)) {
                data.add(*rounded, shape.lineWidth / 2);
                if (shape.lineWidth > 0) data.add(*rounded, -shape.lineWidth / 2);
            } else {
                data.add(std::get<Polygon>(subpath));
            }
        }
    return data.text();
}

/// In the text colour, which GTK and KDE set in different ways.
QString symbolicSVG(const Image& image) {
    return QStringLiteral(
               R"svg(<svg xmlns="http://www.w3.org/2000/svg" width="16" height="16" viewBox="0 0 %1 %2">
  <style id="current-color-scheme" type="text/css">.ColorScheme-Text { color: #2e3436; }</style>
  <path class="ColorScheme-Text" fill="currentColor" fill-rule="evenodd" d="%3"/>
</svg>
)svg")
        .arg(number(image.width), number(image.height), pathData(image));
}

QString applicationSVG(const Image& image) {
    const double tile = image.width - 2 * tileMargin;
    const double scale = (tile - 2 * tilePadding) / image.width;
    return QStringLiteral(
               R"svg(<svg xmlns="http://www.w3.org/2000/svg" width="128" height="128" viewBox="0 0 %1 %2">
  <rect x="%3" y="%3" width="%4" height="%4" rx="%5" fill="%6"/>
  <path transform="translate(%7 %7) scale(%8)" fill="#ffffff" fill-rule="evenodd" d="%9"/>
</svg>
)svg")
        .arg(number(image.width), number(image.height), number(tileMargin), number(tile), number(tileRadius),
             tileColor, number(tileMargin + tilePadding), number(scale), pathData(image));
}

QImage applicationPixels(const Image& image, int size) {
    QImage pixels(size, size, QImage::Format_ARGB32_Premultiplied);
    pixels.fill(Qt::transparent);
    QPainter painter(&pixels);
    painter.setRenderHint(QPainter::Antialiasing);
    const double scale = size / image.width;
    painter.scale(scale, scale);
    const double tile = image.width - 2 * tileMargin;
    QPainterPath path;
    path.addRoundedRect(tileMargin, tileMargin, tile, tile, tileRadius, tileRadius);
    painter.fillPath(path, QColor(tileColor));
    const double inner = tile - 2 * tilePadding;
    paint(image, painter, QRectF(tileMargin + tilePadding, tileMargin + tilePadding, inner, inner),
          Qt::white);
    return pixels;
}

bool write(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush();
}

bool writeAll(const QDir& folder) {
    const Image image = AppDelegate::makeStatusBarIcon();
    if (!folder.mkpath(QStringLiteral("symbolic/apps")) || !folder.mkpath(QStringLiteral("scalable/apps")) ||
        !write(folder.filePath(QStringLiteral("symbolic/apps/tessary-link-symbolic.svg")),
               symbolicSVG(image).toUtf8()) ||
        !write(folder.filePath(QStringLiteral("scalable/apps/tessary-link.svg")),
               applicationSVG(image).toUtf8()))
        return false;
    for (const int size : {16, 22, 24, 32, 48, 64, 128, 256}) {
        const QString apps = QStringLiteral("%1x%1/apps").arg(size);
        if (!folder.mkpath(apps) ||
            !applicationPixels(image, size).save(folder.filePath(apps + QStringLiteral("/tessary-link.png"))))
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: tessary-icons FOLDER\n", stderr);
        return 2;
    }
    if (writeAll(QDir(QString::fromLocal8Bit(argv[1])))) return 0;
    std::fprintf(stderr, "tessary-icons: cannot write into %s\n", argv[1]);
    return 1;
}
