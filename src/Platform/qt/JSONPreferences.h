// Preferences in a JSON file.
#pragma once

#include "Platform/Preferences.h"

#include <memory>

class QJsonObject;
class QString;

namespace tessary {

/// A JSON object whose members are the keys. The file is replaced atomically. Members that the program does
/// not use are kept. A file that holds no JSON object counts as empty and is kept under another name at the
/// next write. A path that is no regular file (a pipe, a folder) counts as empty too, and nothing is saved.
class JSONPreferences : public Preferences {
  public:
    /// @param path  the file; it and its folder need not exist
    explicit JSONPreferences(const std::string& path);
    ~JSONPreferences() override;

    /// `$XDG_CONFIG_HOME/tessary-link/preferences.json`, by default in `~/.config` (XDG Base Directory).
    static std::string defaultPath();

    std::optional<std::uint32_t> number(std::string_view key) const override;
    std::optional<std::vector<std::optional<std::string>>> array(std::string_view key) const override;
    void setNumber(std::string_view key, std::uint32_t value) override;
    void setTexts(std::string_view key, const std::vector<std::string>& texts) override;

  private:
    void save();

    const std::unique_ptr<QString> path_;
    std::unique_ptr<QJsonObject> loaded_;  ///< the values in effect
    std::unique_ptr<QJsonObject> changed_; ///< the values set by this process
};

} // namespace tessary
