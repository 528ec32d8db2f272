#include "Platform/qt/ImagePainter.h"

#include <QPainter>
#include <QPainterPath>
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

void paint(const Image& image, QPainter& painter, const QRectF& target, const QColor& color) {
    const double scale = std::min(target.width() / image.width, target.height() / image.height);
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(target.center());
    painter.scale(scale, -scale);
    painter.translate(-image.width / 2, -image.height / 2);
    for (const Shape& shape : image.draw({{0, 0}, image.width, image.height})) {
        QPainterPath path;
        path.setFillRule(Qt::OddEvenFill);
        for (const auto& subpath : shape.subpaths)
            std::visit(PathBuilder{path}, subpath);
        if (shape.lineWidth > 0)
            painter.strokePath(path, QPen(color, shape.lineWidth));
        else
            painter.fillPath(path, color);
    }
    painter.restore();
}

} // namespace tessary
