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

/// Room for millions of trusted addresses. Without a limit, a sparse file of a gigabyte would take a gigabyte
/// of memory.
constexpr qint64 maxFileSize = qint64{64} << 20;

/// Whether the path is a folder, a pipe or a device. Reading one may block forever, and it must not be
/// replaced.
bool isNoFile(const QString& path) {
    const QFileInfo info(path);
    return info.exists() && !info.isFile();
}

/// Returns the file's object; an empty one without a file; absent if the file holds no JSON object.
std::optional<QJsonObject> load(const QString& path) {
    QFile file(path);
    if (!file.exists()) return QJsonObject{};
    if (isNoFile(path) || file.size() > maxFileSize || !file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QJsonDocument document = QJsonDocument::fromJson(file.read(maxFileSize));
    if (!document.isObject()) return std::nullopt;
    return document.object();
}

/// Resolves a symbolic link, so that the same file is set aside and replaced.
QString target(const QString& path) {
    const QFileInfo info(path);
    if (info.exists()) return info.canonicalFilePath();
    return info.isSymLink() ? info.symLinkTarget() : path;
}

/// Adds a second name to the file: its own name stays valid until the new file replaces it.
void setAside(const QString& path) {
    QString other = path + QStringLiteral(".unreadable");
    for (int i = 2; QFileInfo::exists(other); ++i)
        other = path + QStringLiteral(".unreadable-%1").arg(i);
    std::error_code error;
    std::filesystem::create_hard_link(path.toStdString(), other.toStdString(), error);
    if (error) QFile::rename(path, other); // a file system without hard links
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
    // Reads the file again, to keep changes that the user has made to it since.
    const std::optional<QJsonObject> present = load(*path_);
    QJsonObject next = present.value_or(QJsonObject{});
    for (auto member = changed_->constBegin(); member != changed_->constEnd(); ++member) {
        next.insert(member.key(), member.value());
        loaded_->insert(member.key(), member.value());
    }

    if (isNoFile(*path_)) return;
    QDir().mkpath(QFileInfo(*path_).absolutePath());
    const QString unsaved = *path_ + QStringLiteral(".unsaved");
    QFile::remove(unsaved); // left by a process that was killed while it saved
    QFile file(unsaved);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) return;
    if (QFile::exists(*path_)) file.setPermissions(QFile::permissions(*path_));
    file.write(QJsonDocument(next).toJson());
    const bool isWritten = file.flush() && fsync(file.handle()) == 0;
    file.close();
    if (!isWritten) { // the disk is full: the old file stays
        QFile::remove(unsaved);
        return;
    }
    if (!present) setAside(*path_);
    std::error_code ignored; // values that cannot be saved remain in effect until the process ends
    std::filesystem::rename(unsaved.toStdString(), path_->toStdString(), ignored);
}

} // namespace tessary
