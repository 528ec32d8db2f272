#include "Platform/qt/TrayHost.h"

#include "Platform/system/OpenFile.h"
#include "Platform/system/Thread.h"

#include <QAbstractNativeEventFilter>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QGuiApplication>
#include <QTimer>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <sys/eventfd.h>
#include <utility>
#include <xcb/xcb.h>

namespace tessary {

namespace {

const QString watcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString watcherPath = QStringLiteral("/StatusNotifierWatcher");

/// Desktops have started their panels by then. Until then a StatusNotifier host may still appear.
constexpr std::chrono::seconds panelTimeout{10};
/// The delay before the next attempt to connect to a new session bus after the previous one has ended, to
/// create a thread, or to open files.
constexpr std::chrono::seconds retryInterval{5};

xcb_connection_t* displayConnection() {
    const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->connection() : nullptr;
}

xcb_atom_t atom(xcb_connection_t* connection, const std::string& name) {
    const auto cookie =
        xcb_intern_atom(connection, false, static_cast<std::uint16_t>(name.size()), name.data());
    auto* reply = xcb_intern_atom_reply(connection, cookie, nullptr);
    const xcb_atom_t result = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return result;
}

/// The selection that the XEmbed panel of this screen owns.
xcb_atom_t traySelection(xcb_connection_t* connection) {
    char* host = nullptr;
    int display = 0;
    int screen = 0;
    if (xcb_parse_display(nullptr, &host, &display, &screen) != 0) std::free(host);
    return atom(connection, "_NET_SYSTEM_TRAY_S" + std::to_string(screen));
}

bool hasOwner(xcb_connection_t* connection, xcb_atom_t selection) {
    auto* reply =
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, selection), nullptr);
    const bool result = reply && reply->owner != XCB_WINDOW_NONE;
    std::free(reply);
    return result;
}

/// Whether enough file descriptors are free for the bus connection that Qt opens for an icon. Qt tries only
/// once.
bool hasRoomForFiles() {
    std::array<OpenFile, 4> files;
    return std::ranges::all_of(files, [](OpenFile& file) {
        file = OpenFile(eventfd(0, EFD_CLOEXEC));
        return bool(file);
    });
}

} // namespace

/// Detects that an XEmbed panel has started, by its MANAGER message to the root window (Inter-Client
/// Communication Conventions Manual, section 2.8).
class TrayHost::ManagerFilter : public QAbstractNativeEventFilter {
  public:
    ManagerFilter(xcb_connection_t* connection, std::function<void()> announced)
        : announced_(std::move(announced))
        , manager_(atom(connection, "MANAGER"))
        , selection_(traySelection(connection)) {
        qApp->installNativeEventFilter(this);
    }
    xcb_atom_t selection() const { return selection_; }

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) override {
        if (eventType != "xcb_generic_event_t") return false;
        const auto* event = static_cast<const xcb_generic_event_t*>(message);
        if ((event->response_type & 0x7f) != XCB_CLIENT_MESSAGE) return false;
        const auto* client = reinterpret_cast<const xcb_client_message_event_t*>(event);
        if (client->type == manager_ && client->data.data32[1] == selection_) announced_();
        return false;
    }

  private:
    const std::function<void()> announced_;
    const xcb_atom_t manager_;
    const xcb_atom_t selection_;
};

/// Shared with the thread that connects to the session bus.
struct TrayHost::Connecting {
    std::mutex mutex;
    TrayHost* host;                     ///< null after its destruction
    std::optional<QDBusConnection> bus; ///< set when the attempt has succeeded or failed
};

TrayHost::TrayHost(std::function<void(TrayProtocol)> found, std::function<void()> lost)
    : found_(std::move(found))
    , lost_(std::move(lost))
    , connecting_(std::make_shared<Connecting>()) {
    connecting_->host = this;
    connectToBus();
    QTimer::singleShot(panelTimeout, this, [this] {
        isPatienceOver_ = true;
        watchXEmbedPanels();
    });
}

TrayHost::~TrayHost() {
    const std::lock_guard lock(connecting_->mutex);
    connecting_->host = nullptr;
}

void TrayHost::connectToBus() {
    {
        const std::lock_guard lock(connecting_->mutex);
        connecting_->bus.reset();
    }
    bus_.reset();
    // Qt opens its own connection to the session bus once per process, so later attempts need another name.
    const QString name = endedBuses_ > 0 ? QStringLiteral("tray-%1").arg(endedBuses_) : QString();
    const auto connect = [connecting = connecting_, name] {
        QDBusConnection::disconnectFromBus(name); // removes a failed attempt
        const QDBusConnection bus = name.isEmpty()
                                        ? QDBusConnection::sessionBus()
                                        : QDBusConnection::connectToBus(QDBusConnection::SessionBus, name);
        const std::lock_guard lock(connecting->mutex);
        connecting->bus = bus;
        if (connecting->host)
            QMetaObject::invokeMethod(connecting->host, "busHasAnswered", Qt::QueuedConnection);
    };
    if (!startDetachedThread("tessary-bus", connect))
        QTimer::singleShot(retryInterval, this, &TrayHost::connectToBus);
}

void TrayHost::busHasAnswered() {
    if (isSettled_) return;
    {
        const std::lock_guard lock(connecting_->mutex);
        bus_ = connecting_->bus;
    }
    if (!bus_->isConnected() && endedBuses_ > 0)
        return QTimer::singleShot(retryInterval, this, &TrayHost::connectToBus);
    if (!bus_->isConnected()) {
        isPatienceOver_ = true; // without a bus there will be no StatusNotifier host
        return watchXEmbedPanels();
    }
    bus_->connect({}, QStringLiteral("/org/freedesktop/DBus/Local"),
                  QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                  SLOT(busHasEnded()));
    watcher_.setConnection(*bus_);
    watcher_.addWatchedService(watcherService);
    watcher_.setWatchMode(QDBusServiceWatcher::WatchForRegistration);
    connect(&watcher_, &QDBusServiceWatcher::serviceRegistered, this, &TrayHost::askForStatusNotifierHost);
    bus_->connect(watcherService, watcherPath, watcherService, QStringLiteral("StatusNotifierHostRegistered"),
                  this, SLOT(askForStatusNotifierHost()));
    askForStatusNotifierHost();
    if (isPatienceOver_) QTimer::singleShot(std::chrono::seconds(1), this, &TrayHost::watchXEmbedPanels);
}

/// Qt chooses the protocol once per process: after StatusNotifierItem it never uses XEmbed.
void TrayHost::busHasEnded() {
    if (managers_ || (isSettled_ && isXEmbed_)) return;
    ++endedBuses_;
    if (std::exchange(isSettled_, false)) lost_();
    connectToBus();
}

void TrayHost::askForStatusNotifierHost() {
    if (isSettled_) return;
    auto call = QDBusMessage::createMethodCall(watcherService, watcherPath,
                                               QStringLiteral("org.freedesktop.DBus.Properties"),
                                               QStringLiteral("Get"));
    call << watcherService << QStringLiteral("IsStatusNotifierHostRegistered");
    call.setAutoStartService(false);
    auto* pending = new QDBusPendingCallWatcher(bus_->asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this, pending] {
        const QDBusPendingReply<QVariant> reply = *pending;
        pending->deleteLater();
        if (reply.isValid() && reply.value().toBool()) settle(TrayProtocol::statusNotifierItem);
    });
}

void TrayHost::watchXEmbedPanels() {
    // Qt queries the bus again when the tray icon is created, so that must not happen before the bus has
    // answered.
    if (isSettled_ || managers_ || !bus_ || !isPatienceOver_ || !displayConnection()) return;
    managers_ = std::make_unique<ManagerFilter>(displayConnection(), [this] {
        QTimer::singleShot(0, this, &TrayHost::askForXEmbedPanel); // not inside the event filter
    });
    askForXEmbedPanel();
}

void TrayHost::askForXEmbedPanel() {
    if (!isSettled_ && hasOwner(displayConnection(), managers_->selection())) settle(TrayProtocol::xembed);
}

void TrayHost::settle(TrayProtocol protocol) {
    if (isSettled_) return;
    if (!hasRoomForFiles())
        return QTimer::singleShot(retryInterval, this, [this, protocol] { settle(protocol); });
    isSettled_ = true;
    isXEmbed_ = protocol == TrayProtocol::xembed;
    managers_.reset();
    if (bus_)
        bus_->disconnect(watcherService, watcherPath, watcherService,
                         QStringLiteral("StatusNotifierHostRegistered"), this,
                         SLOT(askForStatusNotifierHost()));
    watcher_.setWatchedServices({});
    found_(protocol);
}

} // namespace tessary
