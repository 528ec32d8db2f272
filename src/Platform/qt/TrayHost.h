// Waits for a panel that shows status items.
#pragma once

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

namespace tessary {

/// How a panel and the program talk: Qt decides it once per process, so it must not decide too early.
enum class TrayProtocol {
    statusNotifierItem, ///< over the session bus (StatusNotifierItem, com.canonical.dbusmenu)
    xembed,             ///< as a window inside the panel's (System Tray Protocol)
};

/// Tells when there is a panel. A StatusNotifier host counts as soon as it is registered on the session bus;
/// a panel that knows XEmbed alone only after ten seconds, because at login both kinds of panel take their
/// time, and the better one may be the later one. If the bus ends, a panel on its successor is looked for.
///
/// Runs on: the main thread. A session bus that does not answer holds up a thread of its own and nobody else.
class TrayHost : public QObject {
    Q_OBJECT

  public:
    /// @param found  a panel is there: at once, and again after each `lost`
    /// @param lost   the session bus has ended, and with it what the StatusNotifier host shows
    TrayHost(std::function<void(TrayProtocol)> found, std::function<void()> lost);
    ~TrayHost() override;

  private:
    class ManagerFilter;
    struct Connecting;

    void connectToBus();
    Q_SLOT void busHasAnswered();
    Q_SLOT void busHasEnded();
    Q_SLOT void askForStatusNotifierHost();
    void askForXEmbedPanel();
    void watchXEmbedPanels();
    void settle(TrayProtocol protocol);

    const std::function<void(TrayProtocol)> found_;
    const std::function<void()> lost_;
    int endedBuses_ = 0;
    bool isSettled_ = false;
    bool isXEmbed_ = false;       ///< what it has settled for
    bool isPatienceOver_ = false; ///< with desktops that may yet start a StatusNotifier host
    const std::shared_ptr<Connecting> connecting_;
    std::optional<QDBusConnection> bus_; ///< once it has answered
    QDBusServiceWatcher watcher_;
    std::unique_ptr<ManagerFilter> managers_; ///< there once XEmbed will do
};

} // namespace tessary
