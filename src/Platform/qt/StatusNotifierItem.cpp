#include "Platform/qt/StatusNotifierItem.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QImage>
#include <QPixmap>
#include <utility>

namespace tessary {

namespace {

/// Finds the object that Qt has exported. Qt opens a connection for each icon, named after the process and a
/// number that grows with each new icon.
QObject* exportedItem() {
    for (int number = 1; number <= 99; ++number) {
        const QDBusConnection bus(QStringLiteral("org.kde.StatusNotifierItem-%1-%2")
                                      .arg(QCoreApplication::applicationPid())
                                      .arg(number));
        if (!bus.isConnected()) continue;
        if (QObject* item = bus.objectRegisteredAt(QStringLiteral("/StatusNotifierItem"))) return item;
    }
    return nullptr;
}

StatusPixmap statusPixmap(const QIcon& icon, const QSize& size) {
    QImage image = icon.pixmap(size, 1.0).toImage().convertToFormat(QImage::Format_ARGB32);
    StatusPixmap pixmap{image.width(), image.height(), {}};
    pixmap.data.reserve(image.sizeInBytes());
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            for (const int shift : {24, 16, 8, 0})
                pixmap.data.append(static_cast<char>(image.pixel(x, y) >> shift & 0xff));
    return pixmap;
}

} // namespace

void StatusNotifierItem::replaceQts(const QString& id, const QString& title, const QIcon& icon) {
    qDBusRegisterMetaType<StatusPixmap>();
    qDBusRegisterMetaType<StatusPixmapList>();
    qDBusRegisterMetaType<StatusToolTip>();
    // An adaptor replaces an earlier one for the same interface of the object. The object owns it.
    if (QObject* exported = exportedItem()) new StatusNotifierItem(exported, id, title, icon);
}

StatusNotifierItem::StatusNotifierItem(QObject* exported, QString id, QString title, const QIcon& icon)
    : QDBusAbstractAdaptor(exported)
    , id_(std::move(id))
    , title_(std::move(title))
    , icon_(icon) {}

StatusPixmapList StatusNotifierItem::iconPixmap() const {
    StatusPixmapList pixmaps;
    for (const QSize& size : icon_.availableSizes())
        pixmaps.append(statusPixmap(icon_, size));
    return pixmaps;
}

QDBusArgument& operator<<(QDBusArgument& argument, const StatusPixmap& pixmap) {
    argument.beginStructure();
    argument << pixmap.width << pixmap.height << pixmap.data;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, StatusPixmap& pixmap) {
    argument.beginStructure();
    argument >> pixmap.width >> pixmap.height >> pixmap.data;
    argument.endStructure();
    return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const StatusToolTip& toolTip) {
    argument.beginStructure();
    argument << toolTip.icon << toolTip.pixmaps << toolTip.title << toolTip.text;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, StatusToolTip& toolTip) {
    argument.beginStructure();
    argument >> toolTip.icon >> toolTip.pixmaps >> toolTip.title >> toolTip.text;
    argument.endStructure();
    return argument;
}

} // namespace tessary
