// An image value as an icon of Qt.
#pragma once

#include "Models/Image.h"

class QIcon;
class QString;

namespace tessary {

/// An icon that draws `image` at any size and device pixel ratio.
///
/// A panel that knows the icon's name recolours the installed symbolic icon as it likes. Any other panel
/// shows pixels, whose colour it cannot change: they come in a tone that stands out as much from white as
/// from black.
///
/// @param symbolicName  the name of the installed symbolic icon; empty where none is installed
QIcon templateIcon(const Image& image, const QString& symbolicName);

/// `name`, if the icon is installed where desktops look for it (freedesktop.org icon theme: `icons` in the
/// data directories, theme hicolor); else empty.
QString installedSymbolicIcon(const QString& name);

} // namespace tessary
