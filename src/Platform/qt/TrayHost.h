// Waits for a panel that shows status items.
#pragma once

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

namespace tessary {

/// The protocol between panel and program. Qt chooses it once per process, when the first tray icon is
/// created, so that must not happen too early.
enum class TrayProtocol {
    statusNotifierItem, ///< over the session bus (StatusNotifierItem, com.canonical.dbusmenu)
    xembed,             ///< as a window embedded in the panel (System Tray Protocol)
};

/// Reports when there is a panel. A StatusNotifier host is used as soon as it is registered on the session
/// bus. An XEmbed panel is used after ten seconds at the earliest, because at login both kinds take time to
/// start, and a StatusNotifier host is preferred; without a session bus it is used at once. If the session
/// bus ends, the search continues on the next one.
///
/// Runs on: the main thread. A session bus that does not answer blocks a separate thread only.
class TrayHost : public QObject {
    Q_OBJECT

  public:
    /// @param found  called when there is a panel, and again after each `lost`
    /// @param lost   called when the session bus has ended, and the StatusNotifier item with it
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
    bool isXEmbed_ = false;       ///< the protocol in use, once `isSettled_`
    bool isPatienceOver_ = false; ///< an XEmbed panel is accepted too
    const std::shared_ptr<Connecting> connecting_;
    std::optional<QDBusConnection> bus_; ///< present once it has answered or failed
    QDBusServiceWatcher watcher_;
    std::unique_ptr<ManagerFilter> managers_; ///< present while an XEmbed panel is accepted
};

} // namespace tessary
