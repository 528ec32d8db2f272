#include "Platform/qt/JSONPreferences.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <cmath>
#include <filesystem>
#include <limits>
#include <system_error>
#include <unistd.h>

namespace tessary {

namespace {

QString text(std::string_view utf8) {
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

/// The file is a few hundred bytes; a sparse one of a gigabyte would be a gigabyte in memory.
constexpr qint64 maxFileSize = qint64{1} << 20;

/// A folder, a pipe or a device: reading it may never end, and it is not ours to replace.
bool isNoFile(const QString& path) {
    const QFileInfo info(path);
    return info.exists() && !info.isFile();
}

/// The file's object; absent if there is something that is none.
std::optional<QJsonObject> load(const QString& path) {
    QFile file(path);
    if (!file.exists()) return QJsonObject{};
    if (isNoFile(path) || file.size() > maxFileSize || !file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QJsonDocument document = QJsonDocument::fromJson(file.read(maxFileSize));
    if (!document.isObject()) return std::nullopt;
    return document.object();
}

/// Where a symbolic link leads, so that what is set aside and what is replaced are the same file.
QString target(const QString& path) {
    const QFileInfo info(path);
    if (info.exists()) return info.canonicalFilePath();
    return info.isSymLink() ? info.symLinkTarget() : path;
}

/// Gives the file a second name, so that there is a file at every moment until the new one takes the first.
void setAside(const QString& path) {
    QString other = path + QStringLiteral(".unreadable");
    for (int i = 2; QFileInfo::exists(other); ++i)
        other = path + QStringLiteral(".unreadable-%1").arg(i);
    std::error_code error;
    std::filesystem::create_hard_link(path.toStdString(), other.toStdString(), error);
    if (error) QFile::rename(path, other); // a file system without links
}

} // namespace

JSONPreferences::JSONPreferences(const std::string& path)
    : path_(std::make_unique<QString>(target(QString::fromStdString(path))))
    , loaded_(std::make_unique<QJsonObject>(load(*path_).value_or(QJsonObject{})))
    , changed_(std::make_unique<QJsonObject>()) {}

JSONPreferences::~JSONPreferences() = default;

std::string JSONPreferences::defaultPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation).toStdString() +
           "/tessary-link/preferences.json";
}

std::optional<std::uint32_t> JSONPreferences::number(std::string_view key) const {
    const QJsonValue value = loaded_->value(text(key));
    if (!value.isDouble()) return std::nullopt;
    const double number = value.toDouble();
    if (number < 0 || number > std::numeric_limits<std::uint32_t>::max() || number != std::floor(number))
        return std::nullopt;
    return static_cast<std::uint32_t>(number);
}

std::optional<std::vector<std::optional<std::string>>> JSONPreferences::array(std::string_view key) const {
    const QJsonValue value = loaded_->value(text(key));
    if (!value.isArray()) return std::nullopt;
    std::vector<std::optional<std::string>> elements;
    const QJsonArray stored = value.toArray();
    for (const auto& element : stored)
        elements.push_back(element.isString() ? std::optional(element.toString().toStdString())
                                              : std::nullopt);
    return elements;
}

void JSONPreferences::setNumber(std::string_view key, std::uint32_t value) {
    changed_->insert(text(key), static_cast<qint64>(value));
    save();
}

void JSONPreferences::setTexts(std::string_view key, const std::vector<std::string>& texts) {
    QJsonArray array;
    for (const std::string& element : texts)
        array.append(QString::fromStdString(element));
    changed_->insert(text(key), array);
    save();
}

void JSONPreferences::save() {
    // What a person has edited meanwhile is kept too.
    const std::optional<QJsonObject> present = load(*path_);
    QJsonObject next = present.value_or(QJsonObject{});
    for (auto member = changed_->constBegin(); member != changed_->constEnd(); ++member) {
        next.insert(member.key(), member.value());
        loaded_->insert(member.key(), member.value());
    }

    if (isNoFile(*path_)) return;
    QDir().mkpath(QFileInfo(*path_).absolutePath());
    const QString unsaved = *path_ + QStringLiteral(".unsaved");
    QFile::remove(unsaved); // a save that was killed has left it
    QFile file(unsaved);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) return;
    if (QFile::exists(*path_)) file.setPermissions(QFile::permissions(*path_));
    file.write(QJsonDocument(next).toJson());
    const bool isWritten = file.flush() && fsync(file.handle()) == 0;
    file.close();
    if (!isWritten) { // the disk is full: the old one stays where it is
        QFile::remove(unsaved);
        return;
    }
    if (!present) setAside(*path_);
    std::error_code ignored; // what cannot be saved holds for this run
    std::filesystem::rename(unsaved.toStdString(), path_->toStdString(), ignored);
}

} // namespace tessary
