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

    /// How opaque the pixel at a point of the drawing is, whose y grows upward; 0 to 255.
    int at(double x, double y) const {
        return qAlpha(image_.pixel(static_cast<int>(x * scale_), static_cast<int>((18 - y) * scale_)));
    }
    /// The part of the drawing that a rectangle of it covers, 0 to 1.
    double coverage(double left, double bottom, double right, double top) const {
        double sum = 0;
        int count = 0;
        for (double y = bottom + 0.25; y < top; y += 0.5)
            for (double x = left + 0.25; x < right; x += 0.5)
                sum += at(x, y) / 255.0, ++count;
        return sum / count;
    }
    const QImage& image() const { return image_; }

  private:
    const double scale_;
    QImage image_;
};

class TemplateIconTest : public testing::TestWithParam<int> {};

TEST_P(TemplateIconTest, ShowsThreeOutlinedCellsAndAFilledOneWithATriangularHole) {
    const Pixels icon(GetParam());
    for (const auto& [x, y] : {std::pair{4.7, 4.7}, {13.3, 4.7}, {4.7, 13.3}}) {
        EXPECT_EQ(icon.at(x, y), 0) << "an outlined cell is not filled, at " << x << ", " << y;
        EXPECT_GT(icon.at(x, y - 3.5), 100) << "its lower edge";
        EXPECT_GT(icon.at(x - 3.5, y), 100) << "its left edge";
    }
    EXPECT_EQ(icon.at(13.3, 10.5), 255) << "the filled cell, below the triangle";
    EXPECT_LE(icon.at(13.7, 13.3), 2)
        << "inside the triangle, whose edges graze this pixel at the smallest size";
    EXPECT_LT(icon.at(10.0, 10.0), 100) << "the rounded corner";
    EXPECT_EQ(icon.at(9.0, 9.0), 0) << "between the cells";
    EXPECT_EQ(icon.at(0.2, 9.0), 0) << "the edge";
    // The triangle points to the right: its hole is taller at the left.
    EXPECT_LT(icon.coverage(12.5, 11.8, 13.0, 14.8), icon.coverage(14.4, 11.8, 14.9, 14.8) - 0.3);
}

TEST_P(TemplateIconTest, SpansTheImageButForSixTenthsOfAPoint) {
    const int size = GetParam();
    const Pixels icon(size);
    QRect drawn;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            if (qAlpha(icon.image().pixel(x, y)) > 0) drawn |= QRect(x, y, 1, 1);
    const int margin = static_cast<int>(0.6 * size / 18.0 + 1e-6); // a pixel that is covered in part is drawn
    EXPECT_EQ(drawn, QRect(margin, margin, size - 2 * margin, size - 2 * margin));
}

INSTANTIATE_TEST_SUITE_P(Sizes, TemplateIconTest, testing::Values(18, 36, 54));

} // namespace
