// Draws an image value with Qt.
#pragma once

#include "Models/Image.h"

class QColor;
class QPainter;
class QRectF;

namespace tessary {

/// Draws `image` in one colour, centred in `target` and as large as it fits. Other pixels stay unchanged.
///
/// @param target  in the painter's coordinates, whose y grows downward
/// Runs on: any thread.
void paint(const Image& image, QPainter& painter, const QRectF& target, const QColor& color);

} // namespace tessary
