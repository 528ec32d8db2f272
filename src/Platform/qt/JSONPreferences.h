// Preferences in a JSON file.
#pragma once

#include "Platform/Preferences.h"

#include <memory>

class QJsonObject;
class QString;

namespace tessary {

/// One object whose members are the keys, in a file that is replaced as a whole: at every moment it is the
/// old one or the new one. Members that the program does not know are kept. A file that is no JSON object
/// counts as empty and is set aside under another name at the next write. What is no file at all (a pipe, a
/// folder) counts as empty too, and nothing is saved.
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
    std::unique_ptr<QJsonObject> loaded_;  ///< as the program knows them
    std::unique_ptr<QJsonObject> changed_; ///< what this run has set
};

} // namespace tessary
