#include "Platform/qt/ImagePainter.h"

#include <QPainter>
#include <QPainterPath>
#include <QTransform>
#include <algorithm>

namespace tessary {

namespace {

struct PathBuilder {
    QPainterPath& path;

    void operator()(const RoundedRectangle& rounded) const {
        const Rectangle& r = rounded.rectangle;
        path.addRoundedRect(r.origin.x, r.origin.y, r.width, r.height, rounded.radius, rounded.radius);
    }
    void operator()(const Polygon& corners) const {
        QPolygonF polygon;
        for (const Point& corner : corners)
            polygon.append({corner.x, corner.y});
        path.addPolygon(polygon);
        path.closeSubpath();
    }
};

} // namespace

QPainterPath outline(const Image& image) {
    QPainterPath result;
    for (const Shape& shape : image.draw({{0, 0}, image.width, image.height})) {
        QPainterPath path;
        for (const auto& subpath : shape.subpaths)
            std::visit(PathBuilder{path}, subpath);
        if (shape.lineWidth > 0) {
            QPainterPathStroker stroker;
            stroker.setWidth(shape.lineWidth);
            path = stroker.createStroke(path);
        }
        result.addPath(path);
    }
    return QTransform(1, 0, 0, -1, 0, image.height).map(result);
}

void paint(const Image& image, QPainter& painter, const QRectF& target, const QColor& color) {
    const double scale = std::min(target.width() / image.width, target.height() / image.height);
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(target.center());
    painter.scale(scale, scale);
    painter.translate(-image.width / 2, -image.height / 2);
    painter.fillPath(outline(image), color);
    painter.restore();
}

} // namespace tessary
