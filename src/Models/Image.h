// A small drawing as values, which becomes pixels, an icon file or a panel's symbolic icon.
#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

namespace tessary {

/// Lengths are points; the origin is the image's bottom-left corner and y grows upward.
struct Point {
    double x = 0;
    double y = 0;
};

struct Rectangle {
    Point origin;
    double width = 0;
    double height = 0;

    double midX() const { return origin.x + width * 0.5; }
    double midY() const { return origin.y + height * 0.5; }
};

struct RoundedRectangle {
    Rectangle rectangle;
    double radius = 0; ///< of each corner, horizontally and vertically
};

/// A closed path through these corners.
using Polygon = std::vector<Point>;

/// A path in black: its outline if it has a line width, else its inside by the even-odd rule, so that a
/// subpath within another one is a hole.
struct Shape {
    std::vector<std::variant<RoundedRectangle, Polygon>> subpaths;
    double lineWidth = 0;
};

struct Image {
    double width = 0;
    double height = 0;
    /// Only the shape counts; the panel chooses the colour.
    bool isTemplate = false;
    std::string accessibilityDescription;
    /// The drawing for a destination in the image's coordinates. Keeps no state and may be called at any
    /// time.
    std::function<std::vector<Shape>(const Rectangle& destination)> draw;
};

} // namespace tessary
