// The smallest host that updates itself: an ordinary application with a menu.
#include "BundleSwap.h"
#include "ClickThrough.h"
#include "HostWindow.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Example"));
    QApplication::setApplicationName(QStringLiteral("Example"));

    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption(
        {QStringLiteral("url"), QStringLiteral("Address of the update server."), QStringLiteral("URL")});
    parser.addOption({QStringLiteral("click-through"),
                      QStringLiteral("Update without a user and save a picture of each page."),
                      QStringLiteral("FOLDER")});
    parser.process(application);

    // The program is <bundle>/Contents/MacOS/host.
    const QString running = QDir::cleanPath(QApplication::applicationDirPath() + QStringLiteral("/../.."));
    const QString bundle = QString::fromStdString(installedBundle(running.toStdString()));
    HostWindow window(bundle, parser.value(QStringLiteral("url")));
    window.show();
    if (parser.isSet(QStringLiteral("click-through")))
        ClickThrough::start(window, parser.value(QStringLiteral("click-through")));
    else
        window.checkInBackground();
    return QApplication::exec();
}
