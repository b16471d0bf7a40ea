// The least that a Qt Core program does; what the updater takes is counted from here.
#include <QCoreApplication>
#include <QTimer>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QTimer::singleShot(0, &application, &QCoreApplication::quit);
    return QCoreApplication::exec();
}
