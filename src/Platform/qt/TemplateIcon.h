// An image value as an icon of Qt.
#pragma once

#include "Models/Image.h"

class QColor;
class QIcon;
class QString;

namespace tessary {

/// An icon that draws `image` at any size and device pixel ratio.
///
/// A panel that knows the icon's name recolours the installed symbolic icon as it likes. Any other panel
/// shows pixels, whose colour it cannot change.
///
/// @param symbolicName  the name of the installed symbolic icon; empty where none is installed
/// @param tone          the pixels' colour
QIcon templateIcon(const Image& image, const QString& symbolicName, const QColor& tone);

/// `name`, if the icon is installed where desktops look for it (freedesktop.org icon theme: `icons` in the
/// data directories, theme hicolor); else empty.
QString installedSymbolicIcon(const QString& name);

} // namespace tessary
