#include "Platform/qt/QtStatusBar.h"

#include "Platform/qt/QtMenu.h"
#include "Platform/qt/StatusNotifierItem.h"
#include "Platform/qt/TemplateIcon.h"
#include "Platform/qt/TrayHost.h"

#include <QColor>
#include <QCursor>
#include <QGuiApplication>
#include <QIcon>
#include <QSystemTrayIcon>
#include <QTimer>
#include <chrono>
#include <optional>

namespace tessary {

namespace {

// The pixels need a contrast of 3 to 1 on the background of every panel.
const QColor toneForStatusNotifier(0x89, 0x89, 0x89); ///< panels of desktops: white to dark grey (#353535)
const QColor toneForXEmbed(0x76, 0x76, 0x76);         ///< panels of window managers: white, light grey, black

/// Later than the search for an XEmbed panel begins.
constexpr std::chrono::seconds panelReportDelay{15};

} // namespace

/// Stores the requested properties, and creates the tray icon from them when there is a panel.
class QtStatusItem : public StatusItem {
  public:
    explicit QtStatusItem(Log& log)
        : log_(log) {}

    // The system tray protocols support neither behaviour.
    void setBehavior(StatusItemBehavior) override {}

    void setAutosaveName(const std::string& name) override { id_ = QString::fromStdString(name); }
    void setImage(const Image& image) override {
        image_ = image;
        accessibleName_ = QString::fromStdString(image.accessibilityDescription);
    }
    bool isVisible() const override { return isVisible_; }
    void setVisible(bool isVisible) override {
        isVisible_ = isVisible;
        if (tray_) tray_->setVisible(isVisible);
        lookForHost();
    }
    void setMenu(std::shared_ptr<Menu> menu) override { menu_ = std::static_pointer_cast<QtMenu>(menu); }

    void displayAnswered() {
        isDisplayThere_ = true;
        lookForHost();
    }

  private:
    void lookForHost() {
        if (!isDisplayThere_ || !isVisible_ || host_) return;
        host_ = std::make_unique<TrayHost>([this](TrayProtocol protocol) { appear(protocol); },
                                           [this] { tray_.reset(); });
        if (QGuiApplication::platformName() != QLatin1String("offscreen"))
            QTimer::singleShot(panelReportDelay, host_.get(), [this] { reportMissingPanel(); });
    }
    void reportMissingPanel() {
        if (!tray_)
            log_.line(
                "[StatusItem] no panel here shows icons (GNOME needs gnome-shell-extension-appindicator); "
                "devices are connected all the same");
    }
    void appear(TrayProtocol protocol) {
        const bool isWidget = protocol == TrayProtocol::xembed;
        const QIcon icon =
            templateIcon(image_, installedSymbolicIcon(QStringLiteral("tessary-link-symbolic")),
                         isWidget ? toneForXEmbed : toneForStatusNotifier);
        tray_ = std::make_unique<QSystemTrayIcon>(icon);
        tray_->setToolTip(accessibleName_);
        if (menu_) {
            QMenu& view = menu_->makeView(isWidget ? MenuView::Writing::widget : MenuView::Writing::dbusmenu);
            tray_->setContextMenu(&view);
            if (isWidget) // Qt opens the menu for the right button only
                QObject::connect(tray_.get(), &QSystemTrayIcon::activated, &view, [&view](auto reason) {
                    if (reason != QSystemTrayIcon::Context) view.popup(QCursor::pos());
                });
        }
        tray_->setVisible(isVisible_);
        if (!isWidget) StatusNotifierItem::replaceQts(id_, accessibleName_, icon);
    }

    Log& log_;
    QString id_;
    Image image_;
    QString accessibleName_;
    bool isVisible_ = false;
    bool isDisplayThere_ = false;
    std::shared_ptr<QtMenu> menu_;
    std::unique_ptr<TrayHost> host_;
    std::unique_ptr<QSystemTrayIcon> tray_;
};

QtStatusBar::QtStatusBar(Log& log)
    : log_(log) {}
QtStatusBar::~QtStatusBar() = default;

std::shared_ptr<StatusItem> QtStatusBar::makeStatusItem(StatusItemLength) {
    const auto item = std::make_shared<QtStatusItem>(log_);
    if (isDisplayThere_) item->displayAnswered();
    item_ = item;
    return item;
}

std::shared_ptr<Menu> QtStatusBar::makeMenu() {
    auto menu = std::make_shared<QtMenu>();
    menu_ = menu;
    return menu;
}

void QtStatusBar::displayAnswered() {
    isDisplayThere_ = true;
    if (const auto item = item_.lock()) item->displayAnswered();
}

void QtStatusBar::menuContentDidChange() {
    if (const auto menu = menu_.lock()) menu->contentDidChange();
}

} // namespace tessary
