// Draws an image value with Qt.
#pragma once

#include "Models/Image.h"

class QColor;
class QPainter;
class QPainterPath;
class QRectF;

namespace tessary {

/// The drawing as one path of the image's size, to be filled by the even-odd rule; y grows downward. Outlines
/// become areas, because panels that recolour a symbolic icon ignore strokes.
///
/// Runs on: any thread.
QPainterPath outline(const Image& image);

/// Draws `image` in one colour, centred in `target` and as large as it fits. Other pixels stay unchanged.
///
/// @param target  in the painter's coordinates, whose y grows downward
/// Runs on: any thread.
void paint(const Image& image, QPainter& painter, const QRectF& target, const QColor& color);

} // namespace tessary
