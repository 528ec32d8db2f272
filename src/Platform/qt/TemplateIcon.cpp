#include "Platform/qt/TemplateIcon.h"

#include "Platform/qt/ImagePainter.h"

#include <QIcon>
#include <QIconEngine>
#include <QPainter>
#include <QStandardPaths>

namespace tessary {

namespace {

class Engine : public QIconEngine {
  public:
    Engine(Image image, QString symbolicName, const QColor& tone)
        : image_(std::move(image))
        , symbolicName_(std::move(symbolicName))
        , tone_(tone) {}

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode, QIcon::State) override {
        tessary::paint(image_, *painter, rect, tone_);
    }
    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        QPixmap pixmap(size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        paint(&painter, QRect({}, size), mode, state);
        return pixmap;
    }
    QList<QSize> availableSizes(QIcon::Mode, QIcon::State) override {
        QList<QSize> sizes;
        for (const int size : {16, 18, 22, 24, 32, 36, 48, 54, 64})
            sizes.append({size, size});
        return sizes;
    }
    QString iconName() override { return symbolicName_; }
    QIconEngine* clone() const override { return new Engine(*this); }

  private:
    const Image image_;
    const QString symbolicName_;
    const QColor tone_;
};

} // namespace

QIcon templateIcon(const Image& image, const QString& symbolicName, const QColor& tone) {
    return QIcon(new Engine(image, symbolicName, tone));
}

QString installedSymbolicIcon(const QString& name) {
    const QString file = QStringLiteral("icons/hicolor/symbolic/apps/%1.svg").arg(name);
    return QStandardPaths::locate(QStandardPaths::GenericDataLocation, file).isEmpty() ? QString() : name;
}

} // namespace tessary
