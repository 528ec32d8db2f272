// A Qt program that does nothing: what the launch of any of them costs.

#include <QApplication>
#include <QTimer>

int main(int argc, char** argv) {
    const QApplication application(argc, argv);
    QTimer::singleShot(0, [] { QCoreApplication::quit(); });
    return QApplication::exec();
}
