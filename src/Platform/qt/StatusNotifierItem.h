// The D-Bus interface of the status item.
#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QIcon>
#include <QList>
#include <QString>

namespace tessary {

/// Pixels in ARGB32, network byte order.
struct StatusPixmap {
    int width = 0;
    int height = 0;
    QByteArray data;
};
using StatusPixmapList = QList<StatusPixmap>;

struct StatusToolTip {
    QString icon;
    StatusPixmapList pixmaps;
    QString title;
    QString text;
};

/// The interface org.kde.StatusNotifierItem (freedesktop.org: StatusNotifierItem). Replaces Qt's own, which
/// returns the Id as the Title and lacks ItemIsMenu: this item opens its menu with every mouse button.
///
/// Runs on: the main thread.
class StatusNotifierItem : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category CONSTANT)
    Q_PROPERTY(QString Id READ id CONSTANT)
    Q_PROPERTY(QString Title READ title CONSTANT)
    Q_PROPERTY(QString Status READ status CONSTANT)
    Q_PROPERTY(int WindowId READ windowId CONSTANT)
    Q_PROPERTY(QString IconThemePath READ nothing CONSTANT)
    Q_PROPERTY(QString IconName READ iconName CONSTANT)
    Q_PROPERTY(tessary::StatusPixmapList IconPixmap READ iconPixmap CONSTANT)
    Q_PROPERTY(QString OverlayIconName READ nothing CONSTANT)
    Q_PROPERTY(tessary::StatusPixmapList OverlayIconPixmap READ noPixmap CONSTANT)
    Q_PROPERTY(QString AttentionIconName READ nothing CONSTANT)
    Q_PROPERTY(tessary::StatusPixmapList AttentionIconPixmap READ noPixmap CONSTANT)
    Q_PROPERTY(QString AttentionMovieName READ nothing CONSTANT)
    Q_PROPERTY(tessary::StatusToolTip ToolTip READ toolTip CONSTANT)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu CONSTANT)
    Q_PROPERTY(QDBusObjectPath Menu READ menu CONSTANT)

  public:
    /// Replaces Qt's interface on the item that Qt has just exported. Does nothing if no such item is found;
    /// the panel then uses Qt's interface.
    static void replaceQts(const QString& id, const QString& title, const QIcon& icon);

    QString category() const { return QStringLiteral("Hardware"); }
    QString id() const { return id_; }
    QString title() const { return title_; }
    /// Never "Passive", because panels hide passive items.
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString nothing() const { return {}; }
    QString iconName() const { return icon_.name(); }
    StatusPixmapList iconPixmap() const;
    StatusPixmapList noPixmap() const { return {}; }
    StatusToolTip toolTip() const { return {{}, {}, title_, {}}; }
    bool itemIsMenu() const { return true; }
    QDBusObjectPath menu() const { return QDBusObjectPath(QStringLiteral("/MenuBar")); }

    // A panel that calls these despite ItemIsMenu shows the menu by itself.
    Q_SLOT void ContextMenu(int, int) {}
    Q_SLOT void Activate(int, int) {}
    Q_SLOT void SecondaryActivate(int, int) {}
    Q_SLOT void Scroll(int, const QString&) {}

  private:
    StatusNotifierItem(QObject* exported, QString id, QString title, const QIcon& icon);

    const QString id_;
    const QString title_;
    const QIcon icon_;
};

QDBusArgument& operator<<(QDBusArgument& argument, const StatusPixmap& pixmap);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusPixmap& pixmap);
QDBusArgument& operator<<(QDBusArgument& argument, const StatusToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, StatusToolTip& toolTip);

} // namespace tessary

Q_DECLARE_METATYPE(tessary::StatusPixmap)
Q_DECLARE_METATYPE(tessary::StatusToolTip)
