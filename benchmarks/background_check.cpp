// background_check URL: a program without a window that checks once.
#include <ZELUpdater/ZELUpdater.h>

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QVariantMap config{{QStringLiteral("url"), QString::fromLocal8Bit(argv[1])},
                             {QStringLiteral("build"), 100}};
    ZELUpdater::checkForUpdates(config, [](qint64 status, const QVariantMap &, const QVariant &) {
        QCoreApplication::exit(status == ZELStatusNoUpdates ? 0 : 1);
    });
    return QCoreApplication::exec();
}
