// Makes a Qt icon of an image value.
#pragma once

#include "Models/Image.h"

class QColor;
class QIcon;
class QString;

namespace tessary {

/// An icon that draws `image` at any size and device pixel ratio.
///
/// A panel that uses the icon's name recolours the installed symbolic icon. Any other panel shows the pixels
/// in `tone`.
///
/// @param symbolicName  the name of the installed symbolic icon; empty if none is installed
/// @param tone          the colour of the pixels
QIcon templateIcon(const Image& image, const QString& symbolicName, const QColor& tone);

/// Returns `name` if the icon is installed (freedesktop.org icon theme: `icons` in the data directories,
/// theme hicolor); otherwise empty.
QString installedSymbolicIcon(const QString& name);

} // namespace tessary
