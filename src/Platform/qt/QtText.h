// Unicode operations on Qt.
#pragma once

#include "Platform/Text.h"

namespace tessary {

class QtText : public Text {
  public:
    std::u32string collationKey(std::string_view utf8) const override;
};

} // namespace tessary
