// A Qt program that does nothing: the reference for the time to launch.

#include <QApplication>
#include <QTimer>

int main(int argc, char** argv) {
    const QApplication application(argc, argv);
    QTimer::singleShot(0, [] { QCoreApplication::quit(); });
    return QApplication::exec();
}
