#include "Platform/qt/QtText.h"

#include <QString>

namespace tessary {

std::u32string QtText::collationKey(std::string_view utf8) const {
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()))
        .normalized(QString::NormalizationForm_C)
        .toStdU32String();
}

} // namespace tessary
