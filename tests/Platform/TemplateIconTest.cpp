#include "AppDelegate.h"
#include "Platform/qt/ImagePainter.h"

#include <QImage>
#include <QPainter>
#include <gtest/gtest.h>

using namespace tessary;

namespace {

/// The status bar's icon, drawn into a square of that many pixels.
class Pixels {
  public:
    explicit Pixels(int size)
        : scale_(size / 18.0)
        , image_(size, size, QImage::Format_ARGB32) {
        image_.fill(Qt::transparent);
        QPainter painter(&image_);
        paint(AppDelegate::makeStatusBarIcon(), painter, QRectF(0, 0, size, size), Qt::black);
    }

    /// The opacity, 0 to 255, of the pixel at a point of the drawing, whose y grows upward.
    int at(double x, double y) const {
        return qAlpha(image_.pixel(static_cast<int>(x * scale_), static_cast<int>((18 - y) * scale_)));
    }
    /// The bounds of all pixels that are not transparent.
    QRect bounds() const {
        QRect drawn;
        for (int y = 0; y < image_.height(); ++y)
            for (int x = 0; x < image_.width(); ++x)
                if (qAlpha(image_.pixel(x, y)) > 0) drawn |= QRect(x, y, 1, 1);
        return drawn;
    }

  private:
    const double scale_;
    QImage image_;
};

TEST(TemplateIconTest, ShowsThreeOutlinedCellsAndAFilledOneWithATriangularHole) {
    for (const int size : {18, 36, 54}) {
        SCOPED_TRACE(size);
        const Pixels icon(size);
        for (const auto& [x, y] : {std::pair{4.7, 4.7}, {13.3, 4.7}, {4.7, 13.3}}) {
            EXPECT_EQ(icon.at(x, y), 0) << "inside an outlined cell, at " << x << ", " << y;
            EXPECT_GT(icon.at(x, y - 3.5), 100) << "its lower edge";
            EXPECT_GT(icon.at(x - 3.5, y), 100) << "its left edge";
        }
        EXPECT_EQ(icon.at(13.3, 10.5), 255) << "the filled cell, below the triangle";
        EXPECT_LE(icon.at(13.7, 13.3), 2) << "inside the triangle, whose edges touch this pixel at size 18";
        EXPECT_LT(icon.at(12.7, 14.3), icon.at(14.6, 14.3)) << "the triangle points to the right";
        EXPECT_LT(icon.at(10.0, 10.0), 100) << "the rounded corner";
        EXPECT_EQ(icon.at(9.0, 9.0), 0) << "between the cells";

        const int margin = static_cast<int>(0.6 * size / 18.0 + 1e-6); // partly covered pixels are drawn
        EXPECT_EQ(icon.bounds(), QRect(margin, margin, size - 2 * margin, size - 2 * margin));
    }
}

} // namespace
