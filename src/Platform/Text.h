// What the services need from the machine: knowledge of Unicode.
#pragma once

#include <string>
#include <string_view>

namespace tessary {

class Text {
  public:
    virtual ~Text() = default;

    /// A key that orders texts by the code points of their canonical composition (Unicode Standard Annex 15,
    /// form C): two texts that are canonically equivalent have the same key.
    ///
    /// Runs on: any thread. Allocates: yes.
    virtual std::u32string collationKey(std::string_view utf8) const = 0;
};

} // namespace tessary
