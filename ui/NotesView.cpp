// Loads the module that shows the notes, once in a process; what is missing is a line in the log and no
// notes. The page goes on without them.
#include "NotesView.h"

#include "base/SystemCalls.h"
#include "common/DDLog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibrary>

namespace zel {

namespace {

// The web engine shares OpenGL contexts with its widgets, which an application can only be told before it is
// made; this library is usually loaded before.
void shareOpenGLContexts()
{
    if (!QCoreApplication::instance())
        QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
}
Q_CONSTRUCTOR_FUNCTION(shareOpenGLContexts)

// The folder of the library or program that this code is in.
QString ownFolder()
{
    return QFileInfo(QFile::decodeName(ownBinary().c_str())).absolutePath();
}

// The module's file: beside the library, or where programs of the build folder find it.
QString moduleFile()
{
    for (const char *folder : {"ZELUpdater", "../lib/ZELUpdater"}) {
        const QString file =
            QDir(ownFolder()).filePath(QLatin1String(folder) + QLatin1String("/libZELUpdaterNotes.so"));
        if (QFileInfo::exists(file))
            return file;
    }
    return QStringLiteral("libZELUpdaterNotes.so");
}

NotesViewFactory loadModule()
{
    QLibrary module(moduleFile());
    const auto factory = reinterpret_cast<NotesViewFactory>(module.resolve("zelMakeNotesView"));
    if (!factory)
        qCWarning(zelSystemLog).noquote() << "The release notes cannot be shown:" << module.errorString();
    return factory;
}

} // namespace

std::unique_ptr<NotesView> makeNotesView(QWidget *parent)
{
    static const NotesViewFactory factory = loadModule();
    return std::unique_ptr<NotesView>(factory ? factory(parent) : nullptr);
}

} // namespace zel
